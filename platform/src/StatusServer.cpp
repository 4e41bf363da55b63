#include "StatusServer.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace platform {
namespace {

constexpr std::uint32_t kListener = 0xFFFFFFFF;  // all else: the position of a client
constexpr int kTurn = 16;                        // connections before others have their turn

int Control(int epoll, int operation, int fd, std::uint32_t events, std::uint32_t which) {
    epoll_event event{};
    event.events = events;
    event.data.u32 = which;
    return epoll_ctl(epoll, operation, fd, &event);
}

// What a client sent is passed over. It must not stay: the kernel tells who finds unread bytes at the end of
// a connection that it was reset, and the snapshot would be lost.
void PassOver(int fd) {
    shutdown(fd, SHUT_RD);
    char byte;
    while (recv(fd, &byte, sizeof byte, MSG_DONTWAIT) > 0) {
    }
}

// How many bytes of the snapshot are sent, up to its end or to where the client does not take more.
// False when it left.
bool Send(int fd, const status::Snapshot& snapshot, std::size_t* sent) {
    while (*sent < snapshot.size()) {
        status::RecordHead head;
        std::memcpy(&head, snapshot.data() + *sent, sizeof head);
        const std::size_t bytes = sizeof head + head.length;
        if (send(fd, snapshot.data() + *sent, bytes, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            *sent += bytes;
        else if (errno == EAGAIN)
            return true;
        else if (errno != EINTR)
            return false;
    }
    return true;
}

}  // namespace

StatusServer::~StatusServer() {
    for (Client& client : m_clients)
        Close(&client);
    if (m_listener >= 0) close(m_listener);
    if (m_epoll >= 0) close(m_epoll);
}

// Told of each connection once, so that one that cannot be accepted does not keep the thread awake; it is
// looked at again with the next one.
bool StatusServer::Listen(int listener) {
    m_listener = listener;
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    return m_epoll >= 0 && Control(m_epoll, EPOLL_CTL_ADD, listener, EPOLLIN | EPOLLET, kListener) == 0;
}

void StatusServer::Serve() {
    epoll_event events[kClients + 1];
    const int count = epoll_wait(m_epoll, events, kClients + 1, 0);
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u32 == kListener)
            Accept();
        else
            Continue(&m_clients[events[i].data.u32]);
    }
}

void StatusServer::Accept() {
    for (int turn = 0; turn < kTurn; ++turn) {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0)
            Answer(fd);
        else if (errno != EINTR && errno != ECONNABORTED)
            return;
    }
    Control(m_epoll, EPOLL_CTL_MOD, m_listener, EPOLLIN | EPOLLET, kListener);  // told again of the rest
}

void StatusServer::Answer(int fd) {
    PassOver(fd);
    status::Snapshot snapshot = status::Snapshot::Take();
    m_own(&snapshot);
    snapshot.End();
    std::size_t sent = 0;
    if (!snapshot.good() || !Send(fd, snapshot, &sent) || sent == snapshot.size()) {
        close(fd);
        return;
    }
    Client* const client = FreeClient();
    client->fd = fd;
    client->snapshot = std::move(snapshot);
    client->sent = sent;
    client->place = ++m_last_place;
    const auto position = static_cast<std::uint32_t>(client - m_clients.data());
    if (Control(m_epoll, EPOLL_CTL_ADD, fd, EPOLLOUT, position) != 0) Close(client);
}

void StatusServer::Continue(Client* client) {
    if (client->fd < 0) return;
    if (!Send(client->fd, client->snapshot, &client->sent) || client->sent == client->snapshot.size())
        Close(client);
}

// The one that has been slow for longest makes room.
StatusServer::Client* StatusServer::FreeClient() {
    Client* const oldest =
        std::min_element(m_clients.begin(), m_clients.end(),
                         [](const Client& a, const Client& b) { return a.place < b.place; });
    Close(oldest);
    return oldest;
}

void StatusServer::Close(Client* client) {
    if (client->fd >= 0) {
        epoll_ctl(m_epoll, EPOLL_CTL_DEL, client->fd, nullptr);  // a program being started may still hold it
        close(client->fd);
    }
    *client = Client{};
}

}  // namespace platform
