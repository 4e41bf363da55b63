// SOCK_SEQPACKET sockets of this machine: one datagram is one record.
#pragma once

#include <string>
#include <utility>

namespace kipcsend {

// Closes its descriptor.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor();

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

private:
    int m_fd;
};

// Both: the error's number, 0 when done. `socket` is left alone by an error.
int ConnectTo(const std::string& path, Descriptor* socket);  // waits up to 2 s for a full backlog: EAGAIN
int ListenAt(const std::string& path, Descriptor* socket);   // EADDRINUSE: a file is there

// "srw-rw---- root media", or why it cannot be told.
std::string OwnershipOf(const std::string& path);

}  // namespace kipcsend
