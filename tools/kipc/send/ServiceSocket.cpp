#include "ServiceSocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace kipcsend {

ServiceSocket::ServiceSocket(const std::string& root, const std::string& peer)
    : m_path(root + "/usb/" + peer), m_peer(peer) {}

bool ServiceSocket::Connect() {
    const int error = ConnectTo(m_path, &m_socket);
    switch (error) {
        case 0:
            return true;
        case ENOENT:
            m_problem = "there is no socket " + m_path +
                        ": the service does not run, or has another folder (KIPC_DIR)";
            return false;
        case ECONNREFUSED:
            m_problem = "nobody listens at " + m_path + ": the service does not run";
            return false;
        case EACCES:
        case EPERM:
            m_problem = NotAllowed();
            return false;
        case EAGAIN:
            m_problem = "the service takes no connections at " + m_path + ": it hangs, or is being stopped";
            return false;
    }
    m_problem = "no connection to " + m_path + ": " + strerrordesc_np(error);
    return false;
}

std::string ServiceSocket::NotAllowed() const {
    return "no permission to connect to " + m_path + " (" + OwnershipOf(m_path) +
           "): it takes write permission on the socket, which its owner and its group have; be one of them, "
           "or let "
           "the service manager give the socket for " +
           m_peer + " to your group";
}

bool ServiceSocket::Send(records::Bytes bytes) {
    if (send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0) return true;
    const int error = errno;
    if (error == EPIPE || error == ECONNRESET)
        m_problem =
            "the service turned the connection away: " + m_peer + " has too many, or it has just ended";
    else if (error == EAGAIN)
        m_problem = "the service does not read what " + m_peer + " sends";
    else
        m_problem = "not sent: " + std::string(strerrordesc_np(error));
    return false;
}

bool ServiceSocket::WaitUntilTaken(std::chrono::milliseconds patience) {
    shutdown(m_socket.Get(), SHUT_WR);
    pollfd wait{m_socket.Get(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(patience.count())) <= 0) {
        m_problem = "the service does not read what " + m_peer + " sends";
        return false;
    }
    if (WhyClosed() == END_READ_ALL) return true;
    m_problem = "the service closed the connection without reading: " + m_peer +
                " has too many connections, or it has just ended";
    return false;
}

// The kernel tells the side that stays whether the other one left with records unread.
ServiceSocket::E_END ServiceSocket::WhyClosed() const {
    char byte;
    const ssize_t length = recv(m_socket.Get(), &byte, sizeof byte, MSG_DONTWAIT);
    return length < 0 && errno == ECONNRESET ? END_UNREAD : END_READ_ALL;
}

}  // namespace kipcsend
