// One record to the six receivers that the service knows: what it costs the thread that sends.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/kipc.h"
#include "platform/trace.h"

namespace {

constexpr std::array<const char*, 6> kReceivers = {"voltage", "media", "navi", "speech", "test", "diag"};
constexpr unsigned long kAll =
    0x200 | 0x800000 | 0x2000000 | 0x4000000000 | 0x40000000000 | 0x0800000000000000;
constexpr unsigned kRecordBytes = 360;
constexpr int kOne = 1;
constexpr int kBurst = 50;  // below what a receiver's backlog takes

double ThreadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The inboxes of the six, and a thread that reads them: all, or all but the first, who stopped.
class Receivers {
public:
    enum E_FIRST { READS, STOPPED };

    explicit Receivers(E_FIRST first) : m_first(first) {
        char folder[] = "/tmp/kipc-bench-XXXXXX";
        if (!mkdtemp(folder)) std::abort();
        m_folder = folder;
        setenv("KIPC_DIR", folder, 1);
        for (std::size_t i = 0; i < kReceivers.size(); ++i) {
            std::filesystem::create_directories(m_folder + "/" + kReceivers[i]);
            m_listeners[i] = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
            const sockaddr_un address = AddressOf(i);
            if (bind(m_listeners[i], reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
                listen(m_listeners[i], 4) != 0)
                std::abort();
        }
        m_thread = std::thread([this] { Read(); });
    }
    ~Receivers() {
        m_stopping = true;
        m_thread.join();
        for (int fd : m_listeners)
            close(fd);
        std::filesystem::remove_all(m_folder);
    }
    Receivers(const Receivers&) = delete;
    Receivers& operator=(const Receivers&) = delete;

    sockaddr_un AddressOf(std::size_t receiver) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = m_folder + "/" + kReceivers[receiver] + "/usb";
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return address;
    }
    unsigned long Reading() const { return m_first == READS ? kReceivers.size() : kReceivers.size() - 1; }
    void WaitFor(unsigned long received) const {
        while (m_received < received)
            usleep(50);
    }

private:
    void Read() {
        std::array<pollfd, kReceivers.size()> ends{};
        for (std::size_t i = 0; i < ends.size(); ++i)
            ends[i] = {m_first == STOPPED && i == 0 ? -1 : m_listeners[i], POLLIN, 0};
        while (!m_stopping) {
            poll(ends.data(), ends.size(), 10);
            for (std::size_t i = 0; i < ends.size(); ++i) {
                if (ends[i].revents == 0) continue;
                char bytes[512];
                if (ends[i].fd == m_listeners[i])
                    ends[i].fd = accept(m_listeners[i], nullptr, nullptr);
                else
                    while (recv(ends[i].fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0)
                        ++m_received;
            }
        }
        for (std::size_t i = 0; i < ends.size(); ++i)
            if (ends[i].fd >= 0 && ends[i].fd != m_listeners[i]) close(ends[i].fd);
    }

    const E_FIRST m_first;
    std::string m_folder;
    std::array<int, kReceivers.size()> m_listeners{};
    std::atomic<unsigned long> m_received{0};
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

// Sends one, or a burst, when what was sent before is read; the time is the sender's own processor time by
// record.
template <typename SendOne>
void Bursts(benchmark::State& state, const Receivers& receivers, unsigned long sent_before,
            SendOne send_one) {
    const auto burst = static_cast<unsigned long>(state.range(0));
    unsigned long sent = sent_before;
    for (auto _ : state) {
        const double begin = ThreadSeconds();
        for (unsigned long i = 0; i < burst; ++i)
            send_one();
        state.SetIterationTime((ThreadSeconds() - begin) / static_cast<double>(burst));
        sent += burst;
        receivers.WaitFor(sent * receivers.Reading());
    }
}

void OneAndBurst(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("records")->Arg(kOne)->Arg(kBurst);
    benchmark->UseManualTime()->Iterations(500)->Repetitions(9)->ReportAggregatesOnly();
}

void BareSends(benchmark::State& state) {
    Receivers receivers(Receivers::READS);
    std::vector<int> sockets;
    for (std::size_t i = 0; i < kReceivers.size(); ++i) {
        sockets.push_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const sockaddr_un address = receivers.AddressOf(i);
        if (connect(sockets[i], reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            std::abort();
    }
    const char bytes[kRecordBytes] = {};
    Bursts(state, receivers, 0, [&] {
        for (int fd : sockets)
            send(fd, bytes, sizeof bytes, MSG_NOSIGNAL);
    });
    for (int fd : sockets)
        close(fd);
}
BENCHMARK(BareSends)->Name("kipc/six_bare_sends")->Apply(OneAndBurst);

void SendToSix(benchmark::State& state, const Receivers& receivers, const kipc::Interface& interface) {
    char bytes[kRecordBytes] = {};
    // The one that stopped is as far behind as it may be, before the clock runs.
    unsigned long sent = 0;
    for (; sent < 1000; sent += kBurst) {
        for (int i = 0; i < kBurst; ++i)
            interface.send_pkt(kAll, sizeof bytes, bytes);
        receivers.WaitFor((sent + kBurst) * receivers.Reading());
    }
    Bursts(state, receivers, sent, [&] { interface.send_pkt(kAll, sizeof bytes, bytes); });
}

void SixReceivers(benchmark::State& state, Receivers::E_FIRST first) {
    constexpr int kNothing = 256;  // above every level: that one of them stopped is known here
    const int threshold = std::exchange(ka_log_threshold, kNothing);
    {
        Receivers receivers(first);
        kipc::Interface interface;
        SendToSix(state, receivers, interface);
    }
    ka_log_threshold = threshold;
}
BENCHMARK_CAPTURE(SixReceivers, six, Receivers::READS)
    ->Name("kipc/six_receivers/all_read")
    ->Apply(OneAndBurst);
BENCHMARK_CAPTURE(SixReceivers, stopped, Receivers::STOPPED)
    ->Name("kipc/six_receivers/one_stopped")
    ->Apply(OneAndBurst);

}  // namespace
