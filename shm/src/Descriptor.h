// A file descriptor that is closed at the end of the block.
#pragma once

#include <unistd.h>

namespace shm {

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_fd; }  // -1: none

private:
    const int m_fd;
};

}  // namespace shm
