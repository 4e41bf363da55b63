// Everything that leaves this process for another one: a backlog per receiver and one thread that empties
// them. Any thread may send; the writer thread alone touches the sockets. It sleeps without a timer while
// nothing waits.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ByteRing.h"
#include "platform/tap.h"

namespace status {
class Snapshot;
}

namespace platform {

// `KIPC_DIR`, or /run/kipc: the folder of all inboxes.
std::string RootFolder();

std::uint64_t MonotonicNs();

class Outbox {
public:
    // The process's one, made when nobody holds it.
    static std::shared_ptr<Outbox> Shared();

    // The process's name for its receivers, who hear it at `<root>/<receiver>/<sender>`. A process that only
    // passes on what others say stays off the tap.
    enum E_TAP { SHOWN, HIDDEN };
    explicit Outbox(std::string sender = "usb", E_TAP tap = SHOWN);
    ~Outbox();  // what can be sent without waiting is sent
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // Any thread; never waits. To each receiver whose bit is set.
    void Send(unsigned long dest, unsigned int len, const char* buf);
    // Any thread; never waits. To the inbox `sdcm`, which has no bit.
    void SendSdcm(unsigned int len, const char* buf);
    // Any thread; never waits. Shows a received record to the tap.
    void ShowReceived(unsigned long source, const char* sender, unsigned int len, const char* buf);

    // Any thread. A ReceiverRecord for each receiver that was sent to.
    void AppendTo(status::Snapshot* snapshot);

private:
    enum E_RESULT { DELIVERED, BUSY, NO_RECEIVER };

    struct Channel {
        Channel(std::string channel_name, std::string socket_path, std::uint64_t bit, std::size_t max_bytes,
                std::size_t max_records)
            : name(std::move(channel_name)),
              path(std::move(socket_path)),
              mask(bit),
              backlog(max_bytes, max_records) {}

        const std::string name;
        const std::string path;
        const std::uint64_t mask;

        // Under m_mutex.
        ByteRing backlog;        // tag: when it was sent, monotonic ns
        unsigned long lost = 0;  // records since the receiver last kept up

        // Records since start, for the status.
        std::atomic<std::uint64_t> sent{0};
        std::atomic<std::uint64_t> dropped{0};

        // Writer thread's.
        int fd = -1;  // owned; -1: not connected
        bool waits_for_room = false;
        bool retries = false;              // the receiver did not accept the connection yet: by the clock
        std::atomic<bool> in_hand{false};  // a record was taken from the backlog and is not sent yet
        std::vector<char> hand;            // never shrinks
        std::size_t hand_bytes = 0;
        std::uint64_t hand_ns = 0;
    };

    Channel* ChannelOf(unsigned position);
    bool Accepts(unsigned int len, const char* buf) const;
    void Post(Channel* channel, std::uint64_t now, unsigned int len, const char* buf);
    void Show(kipc::E_TAP_DIRECTION direction, kipc::E_TAP_OUTCOME outcome, std::uint64_t when,
              std::uint64_t mask, const char* other, const char* buf, std::size_t len);
    void Wake();

    void Work();
    int FlushAll();
    bool Flush(Channel* channel);
    bool TakeNext(Channel* channel);
    E_RESULT Deliver(Channel* channel, int* error);
    E_RESULT Connect(Channel* channel, int* error);
    void WaitForRoom(Channel* channel, bool wait);
    void Close(Channel* channel);
    void Lose(Channel* channel, int error);
    void KeepsUpAgain(Channel* channel);
    void LeaveTap();

    const std::string m_root;
    const std::string m_sender;
    std::mutex m_mutex;                                   // never held over a system call
    std::array<std::unique_ptr<Channel>, 65> m_channels;  // by bit; the last is sdcm; null until first used
    Channel m_tap;
    std::atomic<std::uint64_t> m_tap_from_ns;  // not shown before: the tap was absent a moment ago
    std::atomic<bool> m_woken{false};
    std::atomic<bool> m_stopping{false};
    int m_epoll = -1;  // owned
    int m_event = -1;  // owned
    std::thread m_writer;
};

}  // namespace platform
