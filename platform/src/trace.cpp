// The trace log on standard error.
//
// A line is made on the caller's stack and leaves by one write of at most PIPE_BUF bytes. There is no lock,
// and no state but a few atomic words and each thread's own name, so a child between fork and exec may log
// whatever its parent's threads were doing at the fork. Lines do not mix, because the kernel keeps one such
// write together: on a pipe up to PIPE_BUF bytes, on a stream socket as one buffer, on a file under the
// position's lock. Each line goes to what standard error is at that moment: no descriptor is kept.
//
// As text:      [  123.456789] 128 2816.0 417/frame-usb UPort.cpp:42 CalcUsbPort: text
//               monotonic seconds as in the kernel's log, level, module.submodule, thread id/name, place
// For journald: <6>128 2816.0 417/frame-usb UPort.cpp:42 CalcUsbPort: text
#include "platform/trace.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string_view>

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

// A thread's id and name are asked of the kernel again after this time: whoever was renamed is shown so.
constexpr std::int64_t kIdentityNs = 1000 * 1000;

constexpr int kNoSignal = 0x100;  // RWF_NOSIGNAL, Linux 6.18: younger than the C library's headers

// How standard error is written without waiting for ever. The first three harm nobody when it is something
// else by now, so that the next line need not look before it takes the same way.
enum E_WAY : int {
    WAY_DIRECT,   // flags for one write: neither wait nor signal. Pipes, the null device; Linux 6.18
    WAY_NOWAIT,   // a flag for one write not to wait: Linux 6.4
    WAY_SOCKET,   // send has such flags on every kernel
    WAY_FILE,     // a file waits for its disk only
    WAY_OPENED,   // an open file of our own with the non-blocking flag
    WAY_GUARDED,  // asked for room before each write
    WAY_UNKNOWN   // to be looked at
};

std::atomic<unsigned long> g_lost{0};   // lines since the last one that was written
std::atomic<bool> g_torn{false};        // the last write left half a line: the next begins with a newline
std::atomic<bool> g_journal{false};     // standard error is journald's; set before main only
std::atomic<E_WAY> g_way{WAY_UNKNOWN};  // that the last line took, if the next may take it without a look

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

// How many bytes at the front are printable ASCII, eight at a time: nearly always all.
std::size_t PlainBytes(const unsigned char* text, std::size_t count) {
    constexpr std::uint64_t kEach = 0x0101010101010101;
    std::size_t plain = 0;
    for (std::uint64_t bytes = 0; plain + sizeof bytes <= count; plain += sizeof bytes) {
        std::memcpy(&bytes, text + plain, sizeof bytes);
        // The top bit of a byte: set already, or by 0x7F + 1, or by less than 0x20 - 0x20. What one byte
        // borrows or carries reaches only those behind a bad one.
        if ((bytes | (bytes + kEach) | (bytes - 0x20 * kEach)) & (0x80 * kEach)) break;
    }
    while (plain < count && text[plain] >= 0x20 && text[plain] < 0x7F)
        ++plain;
    return plain;
}

// One line on the stack. The first byte is kept for the newline after a torn line.
class Line {
public:
    // ASCII of our own.
    void Append(std::string_view text) {
        if (m_end + text.size() > kLineBytes - 1) return;
        std::memcpy(m_bytes + m_end, text.data(), text.size());
        m_end += text.size();
    }

    template <typename Number>
    void AppendNumber(Number number) {
        const std::to_chars_result result = std::to_chars(m_bytes + m_end, m_bytes + kLineBytes - 1, number);
        if (result.ec == std::errc{}) m_end = static_cast<std::size_t>(result.ptr - m_bytes);
    }

    // With at least `width` characters.
    void AppendPadded(long number, int width, char padding) {
        for (long bound = 10; --width > 0; bound *= 10)
            if (number < bound) Append({&padding, 1});
        AppendNumber(number);
    }

    // Foreign text, escaped; at most `most` bytes of the line. False when it was cut.
    bool AppendEscaped(std::string_view text, std::size_t most) {
        const auto* from = reinterpret_cast<const unsigned char*>(text.data());
        std::size_t left = text.size();
        const std::size_t limit = std::min(m_end + most, kTextEnd);
        for (;;) {
            const std::size_t plain = PlainBytes(from, std::min(left, limit - m_end));
            std::memcpy(m_bytes + m_end, from, plain);
            m_end += plain;
            from += plain;
            left -= plain;
            if (left == 0) return true;
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
    }

    // printf's. False when it cannot be formatted.
    bool AppendFormatted(const char* format, va_list arguments) {
        char* text = m_bytes + m_end;
        // Allocates only for widths and precisions beyond a thousand or so, which nobody uses.
        const int formatted = std::vsnprintf(text, sizeof m_bytes - m_end, format, arguments);
        if (formatted < 0) return false;
        const auto count = static_cast<std::size_t>(formatted);
        if (m_end + count <= kTextEnd && PlainBytes(reinterpret_cast<unsigned char*>(text), count) == count)
            m_end += count;
        else
            EscapeRest();
        return true;
    }

    void End(bool after_torn) {
        m_bytes[0] = '\n';
        m_bytes[m_end++] = '\n';
        m_begin = after_torn ? 0 : 1;
    }

    std::size_t end() const { return m_end; }
    std::string_view Since(std::size_t begin) const { return {m_bytes + begin, m_end - begin}; }

    const char* data() const { return m_bytes + m_begin; }
    std::size_t size() const { return m_end - m_begin; }

private:
    // What was formatted behind the end, with escapes or cut. Its last character may be incomplete there, but
    // is always behind the cut.
    [[gnu::noinline]] void EscapeRest() {  // its stack is not every line's
        char text[sizeof m_bytes];
        const std::size_t count = std::strlen(m_bytes + m_end);
        std::memcpy(text, m_bytes + m_end, count);
        if (!AppendEscaped({text, count}, kLineBytes)) Append(kCut);
    }

    void AppendHex(unsigned char byte) {
        constexpr char kDigits[] = "0123456789abcdef";
        const char escaped[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        std::memcpy(m_bytes + m_end, escaped, sizeof escaped);
        m_end += sizeof escaped;
    }

    static constexpr std::size_t kTextEnd = kLineBytes - 1 - kCutBytes;  // behind it: mark and newline

    char m_bytes[kLineBytes + 1];  // the last one is for a terminating NUL
    std::size_t m_begin = 1;
    std::size_t m_end = 1;
};

// Writing to a pipe without a reader raises SIGPIPE in the writing thread. Where the kernel has no flag
// against it, it is held back during the write and taken away afterwards, so that the process lives, and
// nothing is inherited by the programs that it starts.
class PipeSignalHeld {
public:
    PipeSignalHeld() {
        sigemptyset(&m_signal);
        sigaddset(&m_signal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
        if (sigismember(&m_before, SIGPIPE) == 0) return;  // else it would have been delivered
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        m_was_pending = sigismember(&pending, SIGPIPE) == 1;
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

ssize_t WriteWithFlags(const char* bytes, std::size_t count, int flags) {
    const iovec line{const_cast<char*>(bytes), count};
    constexpr off_t kAtPosition = -1;  // as write does
    return pwritev2(STDERR_FILENO, &line, 1, kAtPosition, flags);
}

// Standard error as it can be written without waiting for ever.
class Output {
public:
    explicit Output(E_WAY way) : m_way(way) {}
    ~Output() {
        if (m_opened >= 0) close(m_opened);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // All of it, or what went out before it failed.
    std::size_t Write(const char* bytes, std::size_t count, int patience_ms) {
        std::optional<PipeSignalHeld> signal;
        std::size_t done = 0;
        while (done < count) {
            if (m_way == WAY_UNKNOWN && !Look()) break;
            if (MayRaise() && !signal) signal.emplace();
            if (m_way == WAY_GUARDED && !Ready(patience_ms)) break;
            const ssize_t written = WriteOnce(bytes + done, count - done);
            const int error = errno;
            if (written > 0) {
                done += static_cast<std::size_t>(written);
                continue;
            }
            if (written < 0 && error == EINTR) continue;
            if (written < 0 && TakesAnotherWay(error)) continue;
            if (written < 0 && error == EPIPE && signal) signal->Raised();
            if (written == 0 || error != EAGAIN || patience_ms == 0 || !Ready(patience_ms)) break;
            patience_ms = 0;
        }
        return done;
    }

    E_WAY WayOfNext() const { return m_way <= WAY_SOCKET ? m_way : WAY_UNKNOWN; }

private:
    // False when it is closed.
    bool Look() {
        m_looked = true;
        struct stat status;
        if (fstat(STDERR_FILENO, &status) != 0) return false;
        if (S_ISREG(status.st_mode))
            m_way = WAY_FILE;
        else if (S_ISSOCK(status.st_mode))
            m_way = WAY_SOCKET;
        else if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))
            m_way = WAY_DIRECT;
        else
            m_way = WAY_GUARDED;
        return true;
    }

    // What failed without a look may be something else by now, or a file whose disk is slow. Behind a look it
    // is an older kernel, or one of those files that take no flag: terminals, pipes that were opened by name.
    bool TakesAnotherWay(int error) {
        if (!m_looked && error != EPIPE) {
            m_way = WAY_UNKNOWN;
            return true;
        }
        if (m_way > WAY_NOWAIT || (error != EOPNOTSUPP && error != ENOSYS)) return false;
        if (m_way == WAY_DIRECT)
            m_way = WAY_NOWAIT;
        else
            OpenOwn();
        return true;
    }

    // The non-blocking flag belongs to the open file, which other processes share: this is one of our own. It
    // cannot be had without /proc or when the pipe or terminal is another user's; then Ready() asks before
    // each write, and a write of somebody else in between, or a terminal with little room, could make this
    // one wait. It is closed behind the line: kept, it would keep the reader of a pipe that is standard error
    // no more from seeing the end.
    void OpenOwn() {
        m_opened = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        m_way = m_opened >= 0 ? WAY_OPENED : WAY_GUARDED;
    }

    bool MayRaise() const { return m_way == WAY_NOWAIT || m_way == WAY_OPENED || m_way == WAY_GUARDED; }

    ssize_t WriteOnce(const char* bytes, std::size_t count) const {
        if (m_way == WAY_DIRECT) return WriteWithFlags(bytes, count, RWF_NOWAIT | kNoSignal);
        if (m_way == WAY_NOWAIT) return WriteWithFlags(bytes, count, RWF_NOWAIT);
        if (m_way == WAY_SOCKET) return send(STDERR_FILENO, bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT);
        return write(m_way == WAY_OPENED ? m_opened : STDERR_FILENO, bytes, count);
    }

    bool Ready(int patience_ms) const {
        const std::int64_t deadline = MonotonicMs() + patience_ms;
        for (;;) {
            pollfd descriptor{m_way == WAY_OPENED ? m_opened : STDERR_FILENO, POLLOUT, 0};
            const std::int64_t left = deadline - MonotonicMs();
            const int ready = poll(&descriptor, 1, left > 0 ? static_cast<int>(left) : 0);
            if (ready > 0) return true;
            if (ready == 0 || errno != EINTR) return false;
        }
    }

    E_WAY m_way;
    bool m_looked = false;
    int m_opened = -1;  // owned
};

int JournalPriority(int level) {
    if (level >= platform::LOG_FAILED) return 3;   // error
    if (level >= platform::LOG_REFUSED) return 4;  // warning
    if (level >= platform::LOG_INFO) return 6;     // information
    return 7;                                      // debug
}

// "417/frame-usb", as it stands in a line.
struct Identity {
    std::int64_t known_until_ns = 0;
    std::size_t count = 0;
    char text[80] = {};  // an id, and the 15 bytes of a name as escapes
};
constinit thread_local Identity t_identity;

void AppendIdentity(Line* line, std::int64_t now_ns) {
    if (now_ns < t_identity.known_until_ns) {
        line->Append({t_identity.text, t_identity.count});
        return;
    }
    const std::size_t begin = line->end();
    line->AppendNumber(gettid());
    line->Append("/");
    char name[17] = "";  // kernel: TASK_COMM_LEN is 16
    prctl(PR_GET_NAME, name);
    line->AppendEscaped(name, sizeof t_identity.text);
    const std::string_view text = line->Since(begin);
    t_identity.count = text.copy(t_identity.text, sizeof t_identity.text);
    t_identity.known_until_ns = now_ns + kIdentityNs;
}

// In the child of a fork.
void ForgetIdentity() {
    t_identity.known_until_ns = 0;
}

void AppendHead(Line* line, int level, int module, int submodule, unsigned long lost) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (g_journal.load(std::memory_order_relaxed)) {
        line->Append("<");
        line->AppendNumber(JournalPriority(level));
        line->Append(">");
    } else {
        line->Append("[");
        line->AppendPadded(now.tv_sec, 5, ' ');
        line->Append(".");
        line->AppendPadded(now.tv_nsec / 1000, 6, '0');
        line->Append("] ");
    }
    line->AppendNumber(level);
    line->Append(" ");
    line->AppendNumber(module);
    line->Append(".");
    line->AppendNumber(submodule);
    line->Append(" ");
    AppendIdentity(line, std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec);
    line->Append(" ");
    if (lost == 0) return;
    line->Append("(");
    line->AppendNumber(lost);
    line->Append(" lines lost) ");
}

void AppendPlace(Line* line, const char* file, const char* function, int number) {
    const std::string_view path = file ? file : "?";
    line->AppendEscaped(path.substr(path.rfind('/') + 1), kPlaceBytes);  // npos + 1 is 0
    line->Append(":");
    line->AppendNumber(number);
    line->Append(" ");
    line->AppendEscaped(function ? function : "?", kPlaceBytes);
    line->Append(": ");
}

void AppendText(Line* line, const char* format, va_list arguments) {
    if (!format) format = "(null)";
    if (line->AppendFormatted(format, arguments)) return;
    line->Append("cannot format: ");
    if (!line->AppendEscaped(format, kLineBytes)) line->Append(kCut);
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
    pthread_atfork(nullptr, nullptr, ForgetIdentity);
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

// Not part of ka_log_print, so that a filtered line does not make room for one.
[[gnu::noinline]] void Print(const char* file, const char* function, int line, int level, int module,
                             int submodule, const char* format, va_list arguments) {
    const int error = errno;
    // Nearly always none: looked at before it is taken, which would cost the other processors the word.
    const unsigned long lost = g_lost.load(std::memory_order_relaxed) ? g_lost.exchange(0) : 0;
    const bool after_torn = g_torn.load(std::memory_order_relaxed) && g_torn.exchange(false);
    Line text;
    AppendHead(&text, level, module, submodule, lost);
    AppendPlace(&text, file, function, line);
    errno = error;  // for %m
    AppendText(&text, format, arguments);
    text.End(after_torn);

    const E_WAY way = g_way.load(std::memory_order_relaxed);
    Output output(way);
    const std::size_t written = output.Write(text.data(), text.size(), lost == 0 ? kPatienceMs : 0);
    if (output.WayOfNext() != way) g_way.store(output.WayOfNext(), std::memory_order_relaxed);
    if (written < text.size()) {
        g_lost.fetch_add(lost + 1);
        if (written > 0 || after_torn) g_torn.store(true);
    }
    errno = error;
}

}  // namespace

extern "C" void ka_log_print(const char* file, const char* function, int line, int level, int module,
                             int submodule, const char* format, ...) {
    if (level < ka_log_threshold) return;
    va_list arguments;
    va_start(arguments, format);
    Print(file, function, line, level, module, submodule, format, arguments);
    va_end(arguments);
}
