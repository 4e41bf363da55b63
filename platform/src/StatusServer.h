// Answers on the status socket: a snapshot for each connection. It has no thread: its owner calls Serve
// whenever fd() is readable, and nothing here blocks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "StatusBoard.h"

namespace platform {

class StatusServer {
public:
    // `own` appends what the platform knows of itself.
    explicit StatusServer(std::function<void(status::Snapshot*)> own) : m_own(std::move(own)) {}
    ~StatusServer();
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    // Takes over a listening socket that does not block. False with errno.
    bool Listen(int listener);

    int fd() const { return m_epoll; }
    void Serve();

private:
    // Who did not read its snapshot as fast as it was written.
    struct Client {
        int fd = -1;  // owned; -1: nobody
        status::Snapshot snapshot;
        std::size_t sent = 0;     // bytes
        std::uint64_t place = 0;  // the oldest has the lowest
    };
    static constexpr std::uint32_t kClients = 8;

    void Accept();
    void Answer(int fd);
    void Continue(Client* client);
    Client* FreeClient();
    void Close(Client* client);

    const std::function<void(status::Snapshot*)> m_own;
    int m_listener = -1;  // owned
    int m_epoll = -1;     // owned
    std::array<Client, kClients> m_clients;
    std::uint64_t m_last_place = 0;
};

}  // namespace platform
