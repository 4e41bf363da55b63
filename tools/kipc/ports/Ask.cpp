#include "ports/Ask.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/status.h"

namespace ports {
namespace {

constexpr int kPatienceSeconds = 5;
constexpr std::size_t kMostRecords = 4096;  // far above what the platform shows

class Socket {
public:
    Socket() : m_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (m_fd >= 0) close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return m_fd; }

private:
    const int m_fd;
};

bool Connect(int fd, const std::string& path, std::string* error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    int code = ENAMETOOLONG;
    const timeval patience{kPatienceSeconds, 0};  // while too many others connect
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (path.size() < sizeof address.sun_path) {
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return true;
        code = errno;
    }
    *error = path + ": " + strerrordesc_np(code);
    return false;
}

E_ASKED Wait(int fd, int stop) {
    pollfd polled[] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
    int count = 0;
    do
        count = poll(polled, 2, kPatienceSeconds * 1000);
    while (count < 0 && errno == EINTR);
    if (polled[1].revents != 0) return ASKED_STOPPED;
    return count > 0 ? ASKED_ANSWERED : ASKED_NOBODY;
}

}  // namespace

E_ASKED Ask(const std::string& folder, int stop, std::vector<std::string>* answer, std::string* error) {
    answer->clear();
    const std::string path = folder + "/usb/status";
    const Socket socket;
    if (!Connect(socket.fd(), path, error)) return ASKED_NOBODY;
    std::string datagram(sizeof(status::RecordHead) + status::kMaxRecordBytes, '\0');
    while (answer->size() < kMostRecords) {
        if (const E_ASKED ready = Wait(socket.fd(), stop); ready != ASKED_ANSWERED) {
            *error = path + ": no answer";
            return ready;
        }
        const ssize_t length = recv(socket.fd(), datagram.data(), datagram.size(), MSG_DONTWAIT);
        if (length == 0) return ASKED_ANSWERED;
        if (length > 0) {
            answer->push_back(datagram.substr(0, static_cast<std::size_t>(length)));
        } else if (errno != EINTR && errno != EAGAIN) {
            *error = path + ": " + strerrordesc_np(errno);
            return ASKED_CUT_OFF;
        }
    }
    *error = path + ": the answer has no end";
    return ASKED_CUT_OFF;
}

}  // namespace ports
