// The trace log on standard error.
//
// A line is made on the caller's stack and leaves by one write of at most PIPE_BUF bytes. There is no lock
// and no state but three atomic words, so a child between fork and exec may log whatever its parent's threads
// were doing at the fork. Lines do not mix, because the kernel keeps one such write together: on a pipe up to
// PIPE_BUF bytes, on a stream socket as one buffer, on a file under the position's lock.
//
// As text:      [  123.456789] 128 2816.0 417/frame-usb UPort.cpp:42 CalcUsbPort: text
//               monotonic seconds as in the kernel's log, level, module.submodule, thread id/name, place
// For journald: <6>128 2816.0 417/frame-usb UPort.cpp:42 CalcUsbPort: text
#include "platform/trace.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Log.h"

int ka_log_threshold = platform::LOG_INFO;

namespace {

constexpr std::size_t kLineBytes = PIPE_BUF;  // what the kernel never splits on a pipe
constexpr char kCut[] = "[...]";              // ends a line that was too long
constexpr std::size_t kCutBytes = sizeof kCut - 1;
constexpr std::size_t kPlaceBytes = 96;  // of a file's, function's or thread's name
// How long a line waits for a reader that does not keep up. Once: the lines after a lost one do not wait,
// until one gets through again.
constexpr int kPatienceMs = 100;

std::atomic<unsigned long> g_lost{0};  // lines since the last one that was written
std::atomic<bool> g_torn{false};       // the last write left half a line: the next begins with a newline
std::atomic<bool> g_journal{false};    // standard error is journald's; set before main only

// Bytes of the UTF-8 character at `text`, or 0 when it is none that may be written: control characters (also
// the two-byte ones, which some terminals obey), stray, missing, overlong and surrogate bytes.
std::size_t PrintableBytes(const unsigned char* text, std::size_t left) {
    const unsigned char first = text[0];
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t count = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || left < count) return 0;
    for (std::size_t i = 1; i < count; ++i)
        if ((text[i] & 0xC0) != 0x80) return 0;
    if (first == 0xC2 && text[1] < 0xA0) return 0;   // U+0080..U+009F: control
    if (first == 0xE0 && text[1] < 0xA0) return 0;   // overlong
    if (first == 0xED && text[1] >= 0xA0) return 0;  // surrogate
    if (first == 0xF0 && text[1] < 0x90) return 0;   // overlong
    if (first == 0xF4 && text[1] >= 0x90) return 0;  // above U+10FFFF
    return count;
}

// One line on the stack. The first byte is kept for the newline after a torn line.
class Line {
public:
    // ASCII of our own.
    void Append(const char* text) {
        const std::size_t count = std::strlen(text);
        if (m_end + count > kLineBytes - 1) return;
        std::memcpy(m_bytes + m_end, text, count);
        m_end += count;
    }

    // Foreign text, escaped; at most `most` bytes of the line. False when it was cut.
    bool AppendEscaped(const char* text, std::size_t most) {
        const auto* from = reinterpret_cast<const unsigned char*>(text);
        std::size_t left = std::strlen(text);
        const std::size_t limit = std::min(m_end + most, kLineBytes - 1 - kCutBytes);
        while (left > 0) {
            const std::size_t printable = PrintableBytes(from, left);
            const std::size_t taken = printable ? printable : 1;
            if (m_end + (printable ? printable : 4) > limit) return false;
            if (printable) {
                std::memcpy(m_bytes + m_end, from, printable);
                m_end += printable;
            } else {
                AppendHex(*from);
            }
            from += taken;
            left -= taken;
        }
        return true;
    }

    void End(bool after_torn) {
        m_bytes[0] = '\n';
        m_bytes[m_end++] = '\n';
        m_begin = after_torn ? 0 : 1;
    }

    const char* data() const { return m_bytes + m_begin; }
    std::size_t size() const { return m_end - m_begin; }

private:
    void AppendHex(unsigned char byte) {
        constexpr char kDigits[] = "0123456789abcdef";
        const char escaped[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        std::memcpy(m_bytes + m_end, escaped, sizeof escaped);
        m_end += sizeof escaped;
    }

    char m_bytes[kLineBytes];
    std::size_t m_begin = 1;
    std::size_t m_end = 1;
};

// Writing to a pipe without a reader raises SIGPIPE in the writing thread. It is held back during the write
// and taken away afterwards, so that the process lives, and nothing is inherited by the programs that it
// starts.
class PipeSignalHeld {
public:
    PipeSignalHeld() {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        m_was_pending = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&m_signal);
        sigaddset(&m_signal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
    }
    ~PipeSignalHeld() {
        if (m_raised && !m_was_pending) {
            const timespec at_once{};
            while (sigtimedwait(&m_signal, nullptr, &at_once) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    PipeSignalHeld(const PipeSignalHeld&) = delete;
    PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

    void Raised() { m_raised = true; }

private:
    sigset_t m_signal;
    sigset_t m_before;
    bool m_was_pending = false;
    bool m_raised = false;
};

std::int64_t MonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Standard error as it can be written without waiting for ever.
class Output {
public:
    Output() {
        struct stat status;
        if (fstat(STDERR_FILENO, &status) != 0) return;
        m_fd = STDERR_FILENO;
        m_socket = S_ISSOCK(status.st_mode);
        m_never_waits = m_socket || S_ISREG(status.st_mode);
        if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
        // The non-blocking flag belongs to the open file, which other processes share: this is one of our
        // own. It cannot be had without /proc or when the pipe or terminal is another user's; then Ready()
        // asks before each write, and a write of somebody else in between, or a terminal with little room,
        // could make this one wait.
        m_opened = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (m_opened < 0) return;
        m_fd = m_opened;
        m_never_waits = true;
    }
    ~Output() {
        if (m_opened >= 0) close(m_opened);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // All of it, or what went out before it failed.
    std::size_t Write(const char* bytes, std::size_t count, int patience_ms) {
        if (m_fd < 0) return 0;
        PipeSignalHeld signal;
        std::size_t done = 0;
        while (done < count) {
            if (!m_never_waits && !Ready(patience_ms)) break;
            const ssize_t written = m_socket
                                        ? send(m_fd, bytes + done, count - done, MSG_NOSIGNAL | MSG_DONTWAIT)
                                        : write(m_fd, bytes + done, count - done);
            const int error = errno;
            if (written > 0) {
                done += static_cast<std::size_t>(written);
                continue;
            }
            if (written < 0 && error == EINTR) continue;
            if (written < 0 && error == EPIPE && !m_socket) signal.Raised();
            if (written == 0 || error != EAGAIN || patience_ms == 0 || !Ready(patience_ms)) break;
            patience_ms = 0;
        }
        return done;
    }

private:
    bool Ready(int patience_ms) const {
        const std::int64_t deadline = MonotonicMs() + patience_ms;
        for (;;) {
            pollfd descriptor{m_fd, POLLOUT, 0};
            const std::int64_t left = deadline - MonotonicMs();
            const int ready = poll(&descriptor, 1, left > 0 ? static_cast<int>(left) : 0);
            if (ready > 0) return true;
            if (ready == 0 || errno != EINTR) return false;
        }
    }

    int m_fd = -1;      // not owned
    int m_opened = -1;  // owned
    bool m_socket = false;
    bool m_never_waits = false;
};

int JournalPriority(int level) {
    if (level >= platform::LOG_FAILED) return 3;   // error
    if (level >= platform::LOG_REFUSED) return 4;  // warning
    if (level >= platform::LOG_INFO) return 6;     // information
    return 7;                                      // debug
}

void AppendHead(Line* line, int level, int module, int submodule, unsigned long lost) {
    char text[128];
    if (g_journal.load(std::memory_order_relaxed)) {
        std::snprintf(text, sizeof text, "<%d>", JournalPriority(level));
    } else {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        std::snprintf(text, sizeof text, "[%5lld.%06ld] ", static_cast<long long>(now.tv_sec),
                      now.tv_nsec / 1000);
    }
    line->Append(text);
    std::snprintf(text, sizeof text, "%d %d.%d %d/", level, module, submodule, static_cast<int>(gettid()));
    line->Append(text);
    char name[17] = "";  // kernel: TASK_COMM_LEN is 16
    prctl(PR_GET_NAME, name);
    line->AppendEscaped(name, kPlaceBytes);
    line->Append(" ");
    if (lost == 0) return;
    std::snprintf(text, sizeof text, "(%lu lines lost) ", lost);
    line->Append(text);
}

void AppendPlace(Line* line, const char* file, const char* function, int number) {
    const char* slash = file ? std::strrchr(file, '/') : nullptr;
    line->AppendEscaped(slash ? slash + 1 : file ? file : "?", kPlaceBytes);
    char text[32];
    std::snprintf(text, sizeof text, ":%d ", number);
    line->Append(text);
    line->AppendEscaped(function ? function : "?", kPlaceBytes);
    line->Append(": ");
}

void AppendText(Line* line, const char* format, va_list arguments) {
    // As long as the line: what does not fit here would have been cut there, and the cut is always before the
    // end of this buffer, where a character may be incomplete.
    char text[kLineBytes];
    if (!format) format = "(null)";
    // Allocates only for widths and precisions beyond a thousand or so, which nobody uses.
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        line->Append("cannot format: ");
        if (!line->AppendEscaped(format, kLineBytes)) line->Append(kCut);
        return;
    }
    if (!line->AppendEscaped(text, kLineBytes)) line->Append(kCut);
}

// journald's rule: JOURNAL_STREAM holds device:inode of the stream it made; only when standard error is still
// that one does it read priorities.
bool IsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream) return false;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char rest = 0;
    if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &rest) != 2) return false;
    struct stat status;
    return fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

// Before all constructors of static objects, so that these can log.
__attribute__((constructor(101))) void ReadEnvironment() {
    g_journal.store(IsJournal(), std::memory_order_relaxed);
    const char* wanted = std::getenv("KA_LOG_LEVEL");
    if (!wanted) return;
    char* end = nullptr;
    errno = 0;
    const long level = std::strtol(wanted, &end, 10);
    if (end == wanted || *end != '\0' || errno != 0 || level < 0 || level > INT_MAX) {
        PLOG(platform::LOG_REFUSED, "KA_LOG_LEVEL is no level: \"%s\"", wanted);
        return;
    }
    ka_log_threshold = static_cast<int>(level);
}

}  // namespace

extern "C" void ka_log_print(const char* file, const char* function, int line, int level, int module,
                             int submodule, const char* format, ...) {
    if (level < ka_log_threshold) return;
    const int error = errno;
    const unsigned long lost = g_lost.exchange(0);
    const bool after_torn = g_torn.exchange(false);
    Line text;
    AppendHead(&text, level, module, submodule, lost);
    AppendPlace(&text, file, function, line);
    va_list arguments;
    va_start(arguments, format);
    errno = error;  // for %m
    AppendText(&text, format, arguments);
    va_end(arguments);
    text.End(after_torn);

    const std::size_t written = Output().Write(text.data(), text.size(), lost == 0 ? kPatienceMs : 0);
    if (written < text.size()) {
        g_lost.fetch_add(lost + 1);
        if (written > 0 || after_torn) g_torn.store(true);
    }
    errno = error;
}
