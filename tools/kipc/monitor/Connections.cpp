#include "monitor/Connections.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "monitor/Datagram.h"

namespace kipcmon {
namespace {

constexpr std::size_t kMostConnections = 64;  // services of one unit; those behind wait until one leaves
constexpr int kTurn = 64;                     // datagrams of one before the next has its turn

pid_t ProcessAt(int descriptor) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return 0;
    return peer.pid;
}

}  // namespace

Connections::Connections(int listener, Taker take, Leaver left)
    : m_listener(listener),
      m_take(std::move(take)),
      m_left(std::move(left)),
      m_datagram(kMostDatagramBytes) {}

Connections::~Connections() {
    for (const Connection& connection : m_connections)
        close(connection.descriptor);
}

void Connections::Wait(int stop, int timeout_ms) {
    std::vector<pollfd> polled;
    polled.push_back({stop, POLLIN, 0});
    polled.push_back({m_connections.size() < kMostConnections ? m_listener : -1, POLLIN, 0});
    for (const Connection& connection : m_connections)
        polled.push_back({connection.descriptor, POLLIN, 0});
    if (poll(polled.data(), polled.size(), timeout_ms) <= 0) return;

    for (std::size_t index = m_connections.size(); index-- > 0;)
        if (polled[index + 2].revents != 0 && !Read(&m_connections[index])) Close(index);
    if (polled[1].revents != 0) Accept();
}

void Connections::Accept() {
    const int descriptor = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) return;  // it left while it waited
    m_connections.push_back({descriptor, ProcessAt(descriptor), false});
}

// False: it left, or is to leave.
bool Connections::Read(Connection* connection) {
    for (int turn = 0; turn < kTurn; ++turn) {
        const ssize_t count =
            recv(connection->descriptor, m_datagram.data(), m_datagram.size(), MSG_TRUNC | MSG_DONTWAIT);
        if (count < 0) return errno == EAGAIN || errno == EINTR;
        if (count == 0) return false;
        // One that is cut keeps its first bytes, and its head then says more than came.
        const std::size_t length = std::min(static_cast<std::size_t>(count), m_datagram.size());
        connection->is_known = m_take({m_datagram.data(), length}, connection->process);
        if (!connection->is_known) return false;
    }
    return true;
}

void Connections::Close(std::size_t index) {
    const Connection connection = m_connections[index];
    m_connections.erase(m_connections.begin() + static_cast<std::ptrdiff_t>(index));
    close(connection.descriptor);
    if (connection.is_known) m_left(connection.process);
}

}  // namespace kipcmon
