#include "ports/Screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace ports {
namespace {

constexpr const char* kTake = "\x1b[?1049h\x1b[?25l\x1b[?7l";  // other screen, no cursor, long lines are cut
constexpr const char* kGiveBack = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr const char* kHome = "\x1b[H";
constexpr const char* kEraseLine = "\x1b[K";
constexpr const char* kEraseRest = "\x1b[J";
constexpr std::size_t kUsualRows = 24;

std::size_t RowsOf(int terminal) {
    winsize size{};
    if (ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return kUsualRows;
    return size.ws_row;
}

}  // namespace

bool WriteAll(int fd, int stop, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        pollfd polled[] = {{fd, POLLOUT, 0}, {stop, POLLIN, 0}};
        if (poll(polled, 2, -1) > 0 && polled[0].revents == 0) {
            errno = ECANCELED;
            return false;
        }
        // As much as a pipe that has room takes at once.
        const ssize_t count =
            write(fd, text.data() + done, std::min<std::size_t>(text.size() - done, PIPE_BUF));
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) done += static_cast<std::size_t>(count);
    }
    return true;
}

Screen::Screen(int terminal, int stop) : m_terminal(terminal), m_stop(stop) {
    WriteAll(m_terminal, m_stop, kTake);
}

Screen::~Screen() {
    WriteAll(m_terminal, -1, kGiveBack);
}

bool Screen::Show(const std::vector<std::string>& lines) {
    std::string text = kHome;
    const std::size_t rows = std::min(lines.size(), RowsOf(m_terminal));
    for (std::size_t i = 0; i < rows; ++i)
        text += (i > 0 ? "\r\n" : "") + lines[i] + kEraseLine;
    return WriteAll(m_terminal, m_stop, text + kEraseRest);
}

}  // namespace ports
