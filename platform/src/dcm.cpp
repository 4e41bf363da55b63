#include "platform/dcm.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Log.h"
#include "Outbox.h"
#include "StatusServer.h"
#include "Thread.h"

namespace dcm {

using platform::LOG_DETAIL;
using platform::LOG_FAILED;
using platform::LOG_REFUSED;

namespace {

constexpr unsigned int kMaxRecordBytes = 4096;  // of an incoming record; the longest known one has 364
constexpr unsigned kMaxConnections = 16;        // per sender; the ones beyond are closed at once
constexpr int kListenBacklog = 16;
constexpr int kTurn = 64;            // records from one connection before the next has its turn
constexpr int kAcceptRetryMs = 200;  // after the process ran out of descriptors
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSocketMode = 0660;  // who may connect: owner and group

// One socket per sender that may speak to this process; which socket a process may open says who it is.
struct Sender {
    const char* name;
    unsigned long source;  // as the frames see it
};
constexpr Sender kSenders[] = {
    {"media", 0x0000000000800000},
    {"diag", 0x0800000000000000},
    {"sdcm", 0x0000000000001000},  // speaks in the name of the service itself
    {"settings", 0},
    {"power", 0x8000000000000000},
    {"test", 0x0000040000000000},
};
constexpr std::size_t kSenderCount = std::size(kSenders);
constexpr const char* kStatusName = "status";  // of the socket for platform/status.h

int AddToEpoll(int epoll, int fd, void* endpoint) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = endpoint;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

// `mkdir -p`. False with errno.
bool MakeFolders(const std::string& path) {
    for (std::size_t end = 1; end != std::string::npos;) {
        end = path.find('/', end + 1);
        if (mkdir(path.substr(0, end).c_str(), kFolderMode) != 0 && errno != EEXIST) return false;
    }
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return false;
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

constexpr int kFirstHandedOver = 3;

// Behind the last descriptor that the service manager handed over to this process (LISTEN_PID, LISTEN_FDS).
int EndOfHandedOver() {
    const char* process = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    if (!process || !count || std::strtol(process, nullptr, 10) != getpid()) return kFirstHandedOver;
    int end = kFirstHandedOver;
    for (long left = std::strtol(count, nullptr, 10); left > 0 && fcntl(end, F_GETFD) >= 0; --left)
        ++end;
    return end;
}

// Also those that nobody asks for here: the programs that the service starts inherit none.
void KeepHandedOverFromChildren() {
    const int end = EndOfHandedOver();
    for (int fd = kFirstHandedOver; fd < end; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// A socket that was handed over under the sender's name (LISTEN_FDNAMES), or -1.
int HandedOver(std::string_view name) {
    const char* names = std::getenv("LISTEN_FDNAMES");
    if (!names) return -1;
    std::string_view rest = names;
    const int end = EndOfHandedOver();
    for (int fd = kFirstHandedOver; fd < end; ++fd) {
        const std::size_t colon = rest.find(':');
        if (rest.substr(0, colon) == name) return fd;
        if (colon == std::string_view::npos) return -1;
        rest.remove_prefix(colon + 1);
    }
    return -1;
}

bool IsListeningSeqpacket(int fd) {
    int type = 0;
    int listens = 0;
    socklen_t size = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) return false;
    size = sizeof listens;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && type == SOCK_SEQPACKET &&
           listens;
}

}  // namespace

const char* const DcmMessage::kMsgName[] = {"none", "usb"};

DcmInterface* DcmInterface::m_pInstance = nullptr;

// The inbox: one thread receives from all senders and answers who asks for the status, another one forwards
// the SDCM queue.
class DcmInterface::Receiver {
public:
    using Queues = std::unique_ptr<frame::Message>[6];
    explicit Receiver(const Queues& queues);
    ~Receiver();

private:
    // A listening socket, or a connection that it accepted.
    struct Endpoint {
        const Sender* sender = nullptr;
        Endpoint* listener = nullptr;  // null: is one
        int fd = -1;                   // owned

        std::string path;  // listener: of the socket that was made here; empty when it was handed over
        unsigned connections = 0;  // listener
        bool paused = false;       // listener: no descriptors left
        bool starves = false;      // listener: said that there are none
        bool turns_away = false;   // listener: said that there are too many connections

        ucred peer{};           // connection
        unsigned long bad = 0;  // connection: refused records since the last good one
    };

    bool Open();
    void Listen(std::size_t index);
    void ListenForStatus();
    void AppendTo(status::Snapshot* snapshot) const;
    int OpenListener(const char* name, std::string* path) const;
    int MakeSocket(const std::string& path) const;
    void Receive();
    void Accept(Endpoint* listener);
    void Pause(Endpoint* listener, int error);
    void Resume();
    bool Read(Endpoint* connection);
    void Refuse(Endpoint* connection, std::size_t length, const char* why);
    void ReportRefused(Endpoint* connection);
    void Disconnect(Endpoint* connection);
    void Forward();

    const Queues& m_queues;  // not owned
    frame::Message* const m_inbox = m_queues[QUEUE_USB].get();
    frame::Message* const m_sdcm = m_queues[QUEUE_SDCM].get();
    const std::shared_ptr<platform::Outbox> m_outbox = platform::Outbox::Shared();
    const std::string m_folder = platform::RootFolder() + "/usb";
    Endpoint m_listeners[kSenderCount];
    std::vector<std::unique_ptr<Endpoint>> m_connections;
    platform::StatusServer m_status{[this](status::Snapshot* snapshot) { AppendTo(snapshot); }};
    std::string m_status_path;  // of the socket that was made here
    bool m_any_paused = false;
    char m_record[kMaxRecordBytes];
    int m_epoll = -1;  // owned
    int m_event = -1;  // owned; readable: stop
    std::thread m_receiving;
    std::thread m_forwarding;
};

DcmInterface::Receiver::Receiver(const Queues& queues) : m_queues(queues) {
    platform::StartThread(&m_forwarding, "kipc-sdcm", [this] { Forward(); });
    if (!Open()) return;
    platform::StartThread(&m_receiving, "kipc-reader", [this] { Receive(); });
}

DcmInterface::Receiver::~Receiver() {
    m_sdcm->stop();
    if (m_forwarding.joinable()) m_forwarding.join();
    if (m_receiving.joinable()) {
        const std::uint64_t one = 1;
        if (write(m_event, &one, sizeof one) < 0) PLOG(LOG_FAILED, "receiver not stopped");
        m_receiving.join();
    }
    for (std::unique_ptr<Endpoint>& connection : m_connections)
        close(connection->fd);
    for (Endpoint& listener : m_listeners) {
        if (listener.fd >= 0) close(listener.fd);
        if (!listener.path.empty()) unlink(listener.path.c_str());
    }
    if (!m_status_path.empty()) unlink(m_status_path.c_str());
    if (m_event >= 0) close(m_event);
    if (m_epoll >= 0) close(m_epoll);
}

// False when nothing can be received at all.
bool DcmInterface::Receiver::Open() {
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    m_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_epoll < 0 || m_event < 0 || AddToEpoll(m_epoll, m_event, nullptr) != 0) {
        PLOG(LOG_FAILED, "nothing will be received: %s", strerrordesc_np(errno));
        return false;
    }
    KeepHandedOverFromChildren();
    if (!MakeFolders(m_folder)) PLOG(LOG_FAILED, "no inbox %s: %s", m_folder.c_str(), strerrordesc_np(errno));
    for (std::size_t index = 0; index < kSenderCount; ++index)
        Listen(index);
    ListenForStatus();
    return true;
}

void DcmInterface::Receiver::Listen(std::size_t index) {
    Endpoint& listener = m_listeners[index];
    listener.sender = &kSenders[index];
    listener.fd = OpenListener(listener.sender->name, &listener.path);
    if (listener.fd < 0) return;
    // Each record then comes with its sender, so that one without bytes differs from the end of the
    // connection.
    const int yes = 1;
    if (setsockopt(listener.fd, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) != 0 ||
        AddToEpoll(m_epoll, listener.fd, &listener) != 0)
        PLOG(LOG_FAILED, "nothing will be received from %s: %s", listener.sender->name,
             strerrordesc_np(errno));
}

// A socket under that name which does not block: the one that was handed over, or one that is made, and then
// `path` says what is taken away at the end. -1 after saying why.
int DcmInterface::Receiver::OpenListener(const char* name, std::string* path) const {
    int fd = HandedOver(name);
    if (fd >= 0) {
        if (!IsListeningSeqpacket(fd)) {
            PLOG(LOG_FAILED, "the socket for %s that was handed over does not listen for packets", name);
            return -1;  // not ours to close
        }
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        return fd;
    }
    const std::string made = m_folder + "/" + name;
    fd = MakeSocket(made);
    if (fd >= 0) *path = made;
    return fd;
}

void DcmInterface::Receiver::ListenForStatus() {
    const int fd = OpenListener(kStatusName, &m_status_path);
    if (fd < 0) return;
    if (!m_status.Listen(fd) || AddToEpoll(m_epoll, m_status.fd(), &m_status) != 0)
        PLOG(LOG_FAILED, "nobody will see the status: %s", strerrordesc_np(errno));
}

void DcmInterface::Receiver::AppendTo(status::Snapshot* snapshot) const {
    for (const std::unique_ptr<frame::Message>& queue : m_queues) {
        if (!queue) continue;
        status::QueueRecord record{};
        std::snprintf(record.name, sizeof record.name, "%s", queue->name());
        record.waiting = queue->waiting();
        record.high_water = queue->high_water();
        record.dropped = queue->dropped();
        snapshot->Append(status::KIND_QUEUE, record);
    }
    m_outbox->AppendTo(snapshot);
}

int DcmInterface::Receiver::MakeSocket(const std::string& path) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        PLOG(LOG_FAILED, "no socket %s: the path is too long", path.c_str());
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    struct stat stale;
    if (lstat(path.c_str(), &stale) == 0 && S_ISSOCK(stale.st_mode))
        unlink(path.c_str());  // of a previous run
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // Nobody can connect between bind and listen, so the mode is right before it matters.
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        chmod(path.c_str(), kSocketMode) == 0 && listen(fd, kListenBacklog) == 0)
        return fd;
    PLOG(LOG_FAILED, "no socket %s: %s", path.c_str(), strerrordesc_np(errno));
    if (fd >= 0) close(fd);
    return -1;
}

void DcmInterface::Receiver::Receive() {
    for (;;) {
        epoll_event events[16];
        const int count = epoll_wait(m_epoll, events, 16, m_any_paused ? kAcceptRetryMs : -1);
        if (count < 0 && errno != EINTR) {
            PLOG(LOG_FAILED, "nothing is received any more: %s", strerrordesc_np(errno));
            return;
        }
        if (count == 0) Resume();
        for (int i = 0; i < count; ++i) {
            if (events[i].data.ptr == &m_status) {
                m_status.Serve();
                continue;
            }
            auto* endpoint = static_cast<Endpoint*>(events[i].data.ptr);
            if (!endpoint) return;  // stopped
            if (!endpoint->listener)
                Accept(endpoint);
            else if (!Read(endpoint))
                Disconnect(endpoint);
        }
    }
}

void DcmInterface::Receiver::Accept(Endpoint* listener) {
    const int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const int error = errno;
    if (fd < 0) {
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) Pause(listener, error);
        return;  // all else: the peer is gone already
    }
    listener->starves = false;
    ucred peer{};
    socklen_t size = sizeof peer;
    const int yes = 1;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) != 0) {
        PLOG(LOG_FAILED, "%s: who connects? %s", listener->sender->name, strerrordesc_np(errno));
        close(fd);
        return;
    }
    if (listener->connections >= kMaxConnections) {
        if (!listener->turns_away)
            PLOG(LOG_REFUSED, "%s: no more than %u connections, pid %d of uid %u is turned away",
                 listener->sender->name, kMaxConnections, peer.pid, peer.uid);
        listener->turns_away = true;
        close(fd);
        return;
    }
    auto connection = std::make_unique<Endpoint>();
    connection->sender = listener->sender;
    connection->listener = listener;
    connection->fd = fd;
    connection->peer = peer;
    if (AddToEpoll(m_epoll, fd, connection.get()) != 0) {
        PLOG(LOG_FAILED, "%s: not received from: %s", listener->sender->name, strerrordesc_np(errno));
        close(fd);
        return;
    }
    PLOG(LOG_DETAIL, "%s: pid %d of uid %u connected", listener->sender->name, peer.pid, peer.uid);
    ++listener->connections;
    m_connections.push_back(std::move(connection));
}

// Out of descriptors: the waiting peer stays readable, and would be tried again and again.
void DcmInterface::Receiver::Pause(Endpoint* listener, int error) {
    if (!listener->starves)
        PLOG(LOG_FAILED, "%s: nobody can connect for a while: %s", listener->sender->name,
             strerrordesc_np(error));
    listener->starves = true;
    epoll_event event{};
    event.data.ptr = listener;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, listener->fd, &event) != 0) return;
    listener->paused = true;
    m_any_paused = true;
}

void DcmInterface::Receiver::Resume() {
    m_any_paused = false;
    for (Endpoint& listener : m_listeners) {
        if (!listener.paused) continue;
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &listener;
        listener.paused = epoll_ctl(m_epoll, EPOLL_CTL_MOD, listener.fd, &event) != 0;
        m_any_paused |= listener.paused;
    }
}

// False when the connection has ended.
bool DcmInterface::Receiver::Read(Endpoint* connection) {
    for (int turn = 0; turn < kTurn; ++turn) {
        iovec bytes{m_record, sizeof m_record};
        // Room for the sender only: descriptors that a peer attaches find none and are closed by the kernel.
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t length = recvmsg(connection->fd, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
        const int error = errno;
        if (length < 0 && error == EINTR) continue;
        if (length < 0) return error == EAGAIN;
        if (length == 0 && message.msg_controllen == 0) return false;
        if (length == 0) {
            Refuse(connection, 0, "is empty");
            continue;
        }
        if ((message.msg_flags & MSG_TRUNC) || static_cast<std::size_t>(length) > sizeof m_record) {
            Refuse(connection, static_cast<std::size_t>(length), "is too long");
            continue;
        }
        ReportRefused(connection);
        const auto count = static_cast<unsigned int>(length);
        m_outbox->ShowReceived(connection->sender->source, connection->sender->name, count, m_record);
        m_inbox->push(connection->sender->source, count, m_record);
    }
    return true;
}

// The first of a row says it, the end of the row how many they were.
void DcmInterface::Receiver::Refuse(Endpoint* connection, std::size_t length, const char* why) {
    if (connection->bad++ > 0) return;
    PLOG(LOG_REFUSED, "%s: a record of %zu bytes from pid %d of uid %u %s", connection->sender->name, length,
         connection->peer.pid, connection->peer.uid, why);
}

void DcmInterface::Receiver::ReportRefused(Endpoint* connection) {
    if (connection->bad > 1)
        PLOG(LOG_REFUSED, "%s: %lu records in a row from pid %d of uid %u were refused",
             connection->sender->name, connection->bad, connection->peer.pid, connection->peer.uid);
    connection->bad = 0;
}

void DcmInterface::Receiver::Disconnect(Endpoint* connection) {
    ReportRefused(connection);
    PLOG(LOG_DETAIL, "%s: pid %d of uid %u left", connection->sender->name, connection->peer.pid,
         connection->peer.uid);
    --connection->listener->connections;
    connection->listener->turns_away = false;
    // Closing alone is not enough: a program that is just being started still holds the socket, and epoll
    // would go on to name a connection that is gone.
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, connection->fd, nullptr);
    close(connection->fd);
    std::erase_if(m_connections, [&](const auto& held) { return held.get() == connection; });
}

void DcmInterface::Receiver::Forward() {
    frame::Message::Record record;
    while (m_sdcm->wait_and_take(&record) || m_sdcm->take(&record))  // stopped: what waits still leaves
        m_outbox->SendSdcm(record.len, record.buf);
}

DcmInterface::DcmInterface() : m_kipc(std::make_shared<kipc::Interface>()) {
    m_queues[QUEUE_USB] = std::make_unique<frame::Message>("usb");
    m_queues[QUEUE_SDCM] = std::make_unique<frame::Message>("sdcm");
    m_queues[QUEUE_EVENT] = std::make_unique<frame::Message>("event");
    m_queues[QUEUE_MONITOR] = std::make_unique<frame::Message>("monitor");
    m_receiver = std::make_unique<Receiver>(m_queues);
}

DcmInterface::~DcmInterface() {
    if (m_pInstance == this) m_pInstance = nullptr;
}

std::shared_ptr<kipc::Interface>& DcmInterface::GetKipcSP() {
    return m_kipc;
}

frame::Message* DcmInterface::GetMessageQueue(unsigned position) const {
    return position < std::size(m_queues) ? m_queues[position].get() : nullptr;
}

}  // namespace dcm
