#include "monitor/Output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace kipcmon {

Output::Output(int descriptor, int stop) : m_descriptor(descriptor), m_stop(stop) {
    struct stat file {};
    m_may_wait = fstat(descriptor, &file) == 0 && !S_ISREG(file.st_mode);
}

E_WRITE Output::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t piece = bytes.size();
        if (m_may_wait) {
            pollfd polled[] = {{m_descriptor, POLLOUT, 0}, {m_stop, POLLIN, 0}};
            if (poll(polled, 2, -1) < 0) continue;
            if (polled[0].revents == 0) return WRITE_STOPPED;
            piece = std::min<std::size_t>(piece, PIPE_BUF);  // a pipe with room takes that much at once
        }
        const ssize_t count = write(m_descriptor, bytes.data(), piece);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR && errno != EAGAIN) {
            m_error = errno;
            return WRITE_FAILED;
        }
    }
    return WRITE_DONE;
}

}  // namespace kipcmon
