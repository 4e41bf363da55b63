#include "Bench.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "gtest/gtest.h"

std::atomic<unsigned long> test::g_allocations{0};

extern "C" {
void* __real_malloc(std::size_t bytes);
void* __wrap_malloc(std::size_t bytes) {
    ++test::g_allocations;
    return __real_malloc(bytes);
}
void* __real__Znwm(std::size_t bytes);
void* __wrap__Znwm(std::size_t bytes) {
    ++test::g_allocations;
    return __real__Znwm(bytes);
}
}

namespace test {
namespace {

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

bool Readable(int fd, int wait_ms) {
    pollfd descriptor{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&descriptor, 1, wait_ms);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

constexpr int kDeadlineMs = static_cast<int>(std::chrono::milliseconds(kDeadline).count());

}  // namespace

bool Eventually(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    Close();
    m_fd = std::exchange(other.m_fd, -1);
    return *this;
}

void Descriptor::Close() {
    if (m_fd >= 0) close(std::exchange(m_fd, -1));
}

KipcFolder::KipcFolder() {
    char path[] = "/tmp/kipc-test-XXXXXX";
    EXPECT_NE(mkdtemp(path), nullptr);
    m_path = path;
    setenv("KIPC_DIR", path, 1);
}

KipcFolder::~KipcFolder() {
    unsetenv("KIPC_DIR");
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
    EXPECT_FALSE(error) << error.message();
}

CapturedLog::CapturedLog()
    : m_file(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)),
      m_before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    EXPECT_GE(dup2(m_file.get(), STDERR_FILENO), 0);
}

CapturedLog::~CapturedLog() {
    dup2(m_before.get(), STDERR_FILENO);
}

std::vector<std::string> CapturedLog::Lines() const {
    std::string text;
    char piece[4096];
    off_t at = 0;
    for (ssize_t count = 0; (count = pread(m_file.get(), piece, sizeof piece, at)) > 0; at += count)
        text.append(piece, static_cast<std::size_t>(count));
    return SplitLines(text);
}

std::vector<std::string> CapturedLog::LinesWith(std::string_view part) const {
    std::vector<std::string> lines = Lines();
    std::erase_if(lines, [&](const std::string& line) { return line.find(part) == std::string::npos; });
    return lines;
}

bool CapturedLog::WaitFor(std::string_view part) const {
    return Eventually([&] { return !LinesWith(part).empty(); });
}

Inbox::Inbox(const std::string& path, int backlog)
    : m_listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    unlink(path.c_str());
    const sockaddr_un address = AddressOf(path);
    EXPECT_EQ(bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(m_listener.get(), backlog), 0);
}

int Inbox::Accept() {
    m_connection.Close();
    if (Readable(m_listener.get(), kDeadlineMs))
        m_connection = Descriptor(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(connected()) << "nobody connects";
    return m_connection.get();
}

std::string Inbox::Receive() {
    if (!connected()) Accept();
    if (!connected() || !Readable(m_connection.get(), kDeadlineMs)) {
        ADD_FAILURE() << "no record comes";
        return "";
    }
    static char record[256 * 1024];  // tests receive on one thread
    const ssize_t count = recv(m_connection.get(), record, sizeof record, 0);
    return std::string(record, count > 0 ? static_cast<std::size_t>(count) : 0);
}

bool Inbox::HasMore(int wait_ms) {
    return Readable(connected() ? connection() : m_listener.get(), wait_ms);
}

Peer::Peer(const std::string& path) : m_socket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    const timeval deadline{kDeadline.count(), 0};
    setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof deadline);
    const sockaddr_un address = AddressOf(path);
    m_connected = connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool Peer::Send(std::string_view record) {
    return send(m_socket.get(), record.data(), record.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(record.size());
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    return lines;
}

std::size_t OpenDescriptors() {
    std::size_t count = 0;
    DIR* folder = opendir("/proc/self/fd");
    while (folder && readdir(folder))
        ++count;
    if (folder) closedir(folder);
    return count;
}

ThreadCost CostOf(const std::string& thread_name) {
    ThreadCost cost;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name != thread_name) continue;
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;)
            if (word == "voluntary_ctxt_switches:") status >> cost.sleeps;
        std::ifstream stat(task.path() / "stat");
        std::string word;
        for (int field = 1; field < 14; ++field)  // proc(5): utime and stime are fields 14 and 15
            stat >> word;
        long user = 0;
        long kernel = 0;
        stat >> user >> kernel;
        cost.ticks = user + kernel;
    }
    return cost;
}

}  // namespace test
