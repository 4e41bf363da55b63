#include "Outbox.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>

#include "Log.h"
#include "StatusBoard.h"
#include "Thread.h"

namespace platform {
namespace {

// A receiver that does not read may fall this far behind, beyond what the kernel keeps for its socket (some
// 200 records of the usual 360 bytes).
constexpr std::size_t kBacklogRecords = 256;
constexpr std::size_t kBacklogBytes = 1024 * 1024;
constexpr std::size_t kTapBacklogRecords = 1024;
constexpr std::size_t kTapBacklogBytes = 1024 * 1024;

constexpr unsigned int kMaxRecordBytes = 64 * 1024;  // far above every record of the unit
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kTapRetryNs = 100 * 1000 * 1000;  // absent: asked again with a record after this time
constexpr int kConnectRetryMs = 100;                      // a receiver that listens but does not accept
constexpr int kTurn = 256;              // records to one receiver before the next has its turn
constexpr unsigned kSdcmPosition = 64;  // behind the 64 bits

struct KnownReceiver {
    std::uint64_t mask;
    const char* name;
};
constexpr KnownReceiver kKnownReceivers[] = {
    {0x0000000000000200, "voltage"}, {0x0000000000001000, "usb"},    {0x0000000000800000, "media"},
    {0x0000000002000000, "navi"},    {0x0000004000000000, "speech"}, {0x0000040000000000, "test"},
    {0x0800000000000000, "diag"},
};

std::string NameOf(std::uint64_t mask) {
    for (const KnownReceiver& known : kKnownReceivers)
        if (known.mask == mask) return known.name;
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(mask));
    return digits;
}

std::uint64_t ClockNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::string RootFolder() {
    const char* folder = std::getenv("KIPC_DIR");
    return folder && *folder ? folder : "/run/kipc";
}

std::uint64_t MonotonicNs() {
    return ClockNs(CLOCK_MONOTONIC);
}

std::shared_ptr<Outbox> Outbox::Shared() {
    static std::mutex mutex;
    static std::weak_ptr<Outbox> shared;
    std::lock_guard lock(mutex);
    std::shared_ptr<Outbox> outbox = shared.lock();
    if (!outbox) {
        outbox = std::make_shared<Outbox>();
        shared = outbox;
    }
    return outbox;
}

Outbox::Outbox(std::string sender, E_TAP tap)
    : m_root(RootFolder()),
      m_sender(std::move(sender)),
      m_tap("tap", m_root + "/tap", 0, kTapBacklogBytes, kTapBacklogRecords),
      m_tap_from_ns(tap == SHOWN ? 0 : kNever) {
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    m_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;  // the only one without a channel
    if (m_epoll < 0 || m_event < 0 || epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_event, &event) != 0) {
        PLOG(LOG_FAILED, "no packet will leave: %s", strerrordesc_np(errno));
        return;
    }
    StartThread(&m_writer, "kipc-writer", [this] { Work(); });
}

Outbox::~Outbox() {
    if (m_writer.joinable()) {
        m_stopping = true;
        Wake();
        m_writer.join();
    }
    for (std::unique_ptr<Channel>& channel : m_channels)
        if (channel) Close(channel.get());
    Close(&m_tap);
    if (m_event >= 0) close(m_event);
    if (m_epoll >= 0) close(m_epoll);
}

void Outbox::Send(unsigned long dest, unsigned int len, const char* buf) {
    if (!Accepts(len, buf)) return;
    const std::uint64_t now = MonotonicNs();
    for (unsigned position = 0; position < kSdcmPosition; ++position)
        if (dest >> position & 1) Post(ChannelOf(position), now, len, buf);
    Wake();
}

void Outbox::SendSdcm(unsigned int len, const char* buf) {
    if (!Accepts(len, buf)) return;
    Post(ChannelOf(kSdcmPosition), MonotonicNs(), len, buf);
    Wake();
}

void Outbox::ShowReceived(unsigned long source, const char* sender, unsigned int len, const char* buf) {
    Show(kipc::TAP_IN, kipc::TAP_DELIVERED, MonotonicNs(), source, sender, buf, len);
    Wake();
}

void Outbox::AppendTo(status::Snapshot* snapshot) {
    for (std::unique_ptr<Channel>& position : m_channels) {
        status::ReceiverRecord record{};
        {
            std::lock_guard lock(m_mutex);
            const Channel* const channel = position.get();
            if (!channel) continue;
            std::snprintf(record.name, sizeof record.name, "%s", channel->name.c_str());
            record.waiting = channel->backlog.records() + (channel->in_hand ? 1 : 0);
            record.sent = channel->sent.load(std::memory_order_relaxed);
            record.dropped = channel->dropped.load(std::memory_order_relaxed);
        }
        snapshot->Append(status::KIND_RECEIVER, record);
    }
}

bool Outbox::Accepts(unsigned int len, const char* buf) const {
    // A datagram without bytes looks like the end of the connection.
    if (buf && len > 0 && len <= kMaxRecordBytes) return true;
    PLOG(LOG_REFUSED, "no packet of %u bytes (%p)", len, static_cast<const void*>(buf));
    return false;
}

Outbox::Channel* Outbox::ChannelOf(unsigned position) {
    std::lock_guard lock(m_mutex);
    std::unique_ptr<Channel>& channel = m_channels[position];
    if (!channel) {
        const std::uint64_t mask = position == kSdcmPosition ? 0 : std::uint64_t{1} << position;
        const std::string name = position == kSdcmPosition ? "sdcm" : NameOf(mask);
        channel.reset(new (std::nothrow) Channel(name, m_root + "/" + name + "/" + m_sender, mask,
                                                 kBacklogBytes, kBacklogRecords));
    }
    return channel.get();
}

void Outbox::Post(Channel* channel, std::uint64_t now, unsigned int len, const char* buf) {
    if (!channel) {
        PLOG(LOG_FAILED, "no memory for a receiver");
        return;
    }
    bool begins_burst = false;
    {
        std::lock_guard lock(m_mutex);
        if (channel->backlog.Push(now, {buf, len})) return;
        begins_burst = channel->lost++ == 0;
    }
    channel->dropped.fetch_add(1, std::memory_order_relaxed);
    if (begins_burst)
        PLOG(LOG_FAILED, "%s does not read: its backlog is full, packets to it are lost",
             channel->name.c_str());
    Show(kipc::TAP_OUT, kipc::TAP_FULL, now, channel->mask, channel->name.c_str(), buf, len);
}

void Outbox::Show(kipc::E_TAP_DIRECTION direction, kipc::E_TAP_OUTCOME outcome, std::uint64_t when,
                  std::uint64_t mask, const char* other, const char* buf, std::size_t len) {
    const std::uint64_t now = MonotonicNs();
    if (now < m_tap_from_ns) return;
    kipc::TapHead head{};
    head.magic = kipc::kTapMagic;
    head.version = kipc::kTapVersion;
    head.head_bytes = sizeof head;
    head.monotonic_ns = when;
    head.wall_ns = ClockNs(CLOCK_REALTIME) - (now - when);
    head.mask = mask;
    head.length = static_cast<std::uint32_t>(len);
    head.direction = direction;
    head.outcome = outcome;
    std::snprintf(head.sender, sizeof head.sender, "%s",
                  direction == kipc::TAP_IN ? other : m_sender.c_str());
    std::snprintf(head.receiver, sizeof head.receiver, "%s",
                  direction == kipc::TAP_IN ? m_sender.c_str() : other);
    bool begins_burst = false;
    {
        std::lock_guard lock(m_mutex);
        head.lost = static_cast<std::uint32_t>(m_tap.lost);
        if (m_tap.backlog.Push(when, {reinterpret_cast<const char*>(&head), sizeof head}, {buf, len}))
            m_tap.lost = 0;
        else
            begins_burst = m_tap.lost++ == 0;
    }
    if (begins_burst) PLOG(LOG_REFUSED, "the tap does not read: it misses records");
}

void Outbox::Wake() {
    if (m_event < 0 || m_woken.exchange(true)) return;
    const std::uint64_t one = 1;
    // Cannot fail for a counter that is read back before the next one.
    if (write(m_event, &one, sizeof one) < 0)
        PLOG(LOG_FAILED, "writer not woken: %s", strerrordesc_np(errno));
}

void Outbox::Work() {
    int timeout = -1;
    bool stopping = false;
    while (!stopping) {
        epoll_event events[16];
        const int count = epoll_wait(m_epoll, events, 16, timeout);
        if (count < 0 && errno != EINTR) {
            PLOG(LOG_FAILED, "no packet leaves any more: %s", strerrordesc_np(errno));
            return;
        }
        for (int i = 0; i < count; ++i) {
            auto* channel = static_cast<Channel*>(events[i].data.ptr);
            if (!channel) {
                std::uint64_t woken = 0;
                if (read(m_event, &woken, sizeof woken) < 0) PLOG(LOG_DETAIL, "woken by nobody");
                m_woken = false;
            } else if (events[i].events & (EPOLLHUP | EPOLLERR)) {
                Close(channel);
            } else {
                WaitForRoom(channel, false);
            }
        }
        // Behind m_woken: who stops us while it is still true writes nothing, and is seen here.
        stopping = m_stopping;
        do {
            timeout = FlushAll();
        } while (stopping && timeout == 0);
    }
}

// Returns how long to wait for the next time, as epoll_wait takes it.
int Outbox::FlushAll() {
    Channel* busy[66];
    std::size_t count = 0;
    {
        std::lock_guard lock(m_mutex);
        for (std::unique_ptr<Channel>& channel : m_channels)
            if (channel && (channel->in_hand || channel->backlog.records() > 0))
                busy[count++] = channel.get();
    }
    busy[count++] = &m_tap;  // last: it is told what became of the others' records
    bool more = false;
    bool retry = false;
    for (std::size_t i = 0; i < count; ++i) {
        if (busy[i]->waits_for_room) continue;
        more |= Flush(busy[i]);
        retry |= busy[i]->retries;
    }
    if (more) return 0;
    return retry ? kConnectRetryMs : -1;
}

// True when there is more to send at once.
bool Outbox::Flush(Channel* channel) {
    channel->retries = false;
    for (int turn = 0; turn < kTurn; ++turn) {
        if (!channel->in_hand && !TakeNext(channel)) return false;
        int error = 0;
        const E_RESULT result = Deliver(channel, &error);
        if (result == BUSY) return false;
        if (channel == &m_tap && result == NO_RECEIVER) {
            LeaveTap();
            return false;
        }
        channel->in_hand = false;
        if (result == NO_RECEIVER) Lose(channel, error);
        if (channel == &m_tap) continue;
        if (result == DELIVERED) {
            channel->sent.fetch_add(1, std::memory_order_relaxed);
            KeepsUpAgain(channel);
        }
        Show(kipc::TAP_OUT, result == DELIVERED ? kipc::TAP_DELIVERED : kipc::TAP_NO_RECEIVER,
             channel->hand_ns, channel->mask, channel->name.c_str(), channel->hand.data(),
             channel->hand_bytes);
    }
    return true;
}

bool Outbox::TakeNext(Channel* channel) {
    std::lock_guard lock(m_mutex);
    if (channel->backlog.records() == 0) return false;
    const ByteRing::Head head = channel->backlog.Front();
    if (channel->hand.size() < head.length) channel->hand.resize(head.length);
    channel->backlog.Pop(channel->hand.data());
    channel->hand_bytes = head.length;
    channel->hand_ns = head.tag;
    channel->in_hand = true;
    return true;
}

Outbox::E_RESULT Outbox::Deliver(Channel* channel, int* error) {
    // The second time is for a receiver that was restarted since the last record.
    for (int attempt = 0; attempt < 2;) {
        if (channel->fd < 0) {
            const E_RESULT connected = Connect(channel, error);
            if (connected != DELIVERED) return connected;
        }
        if (send(channel->fd, channel->hand.data(), channel->hand_bytes, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0)
            return DELIVERED;
        *error = errno;
        if (*error == EINTR) continue;
        if (*error == EAGAIN) {
            WaitForRoom(channel, true);
            return BUSY;
        }
        if (*error == ENOBUFS || *error == ENOMEM) {
            channel->retries = true;
            return BUSY;
        }
        Close(channel);
        ++attempt;
    }
    return NO_RECEIVER;
}

// DELIVERED: connected.
Outbox::E_RESULT Outbox::Connect(Channel* channel, int* error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (channel->path.size() >= sizeof address.sun_path) {
        *error = ENAMETOOLONG;
        return NO_RECEIVER;
    }
    std::memcpy(address.sun_path, channel->path.c_str(), channel->path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *error = errno;
        return NO_RECEIVER;
    }
    epoll_event event{};
    event.events = 0;  // the peer's end is always told
    event.data.ptr = channel;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        *error = errno;
        close(fd);
        if (*error != EAGAIN) return NO_RECEIVER;
        channel->retries = true;  // it listens, but too many wait to be accepted
        return BUSY;
    }
    channel->fd = fd;
    return DELIVERED;
}

void Outbox::WaitForRoom(Channel* channel, bool wait) {
    channel->waits_for_room = wait;
    if (channel->fd < 0) return;
    epoll_event event{};
    event.events = wait ? std::uint32_t{EPOLLOUT} : 0;
    event.data.ptr = channel;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, channel->fd, &event) == 0) return;
    PLOG(LOG_FAILED, "%s cannot be waited for: %s", channel->name.c_str(), strerrordesc_np(errno));
    Close(channel);
}

void Outbox::Close(Channel* channel) {
    channel->waits_for_room = false;
    if (channel->fd < 0) return;
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, channel->fd, nullptr);  // a program being started may still hold it
    close(channel->fd);
    channel->fd = -1;
}

void Outbox::Lose(Channel* channel, int error) {
    bool begins_burst = false;
    {
        std::lock_guard lock(m_mutex);
        begins_burst = channel->lost++ == 0;
    }
    channel->dropped.fetch_add(1, std::memory_order_relaxed);
    if (begins_burst)
        PLOG(LOG_REFUSED, "%s is not there, packets to it are lost: %s: %s", channel->name.c_str(),
             channel->path.c_str(), strerrordesc_np(error));
}

// A burst of losses ends when a record was delivered and none waits behind it.
void Outbox::KeepsUpAgain(Channel* channel) {
    unsigned long lost = 0;
    {
        std::lock_guard lock(m_mutex);
        if (channel->lost == 0 || channel->backlog.records() > 0) return;
        lost = channel->lost;
        channel->lost = 0;
    }
    PLOG(LOG_REFUSED, "%s lost %lu packets and takes them again", channel->name.c_str(), lost);
}

// Nobody listens: what waits is for nobody, and the next records do not even get a head for a while.
void Outbox::LeaveTap() {
    m_tap_from_ns = MonotonicNs() + kTapRetryNs;
    m_tap.in_hand = false;
    std::lock_guard lock(m_mutex);
    m_tap.backlog.Clear();
    m_tap.lost = 0;
}

}  // namespace platform
