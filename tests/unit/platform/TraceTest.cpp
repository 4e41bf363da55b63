#include "platform/trace.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "Bench.h"
#include "gmock/gmock.h"

namespace {

constexpr int kNoSignal = 0x100;  // RWF_NOSIGNAL
constexpr int kEveryFlag = RWF_NOWAIT | kNoSignal;

std::atomic<int> g_known_flags{kEveryFlag};  // what the kernel of the test knows, at most
std::atomic<bool> g_takes_all{false};        // a kernel that knows them, also where this one does not
std::atomic<unsigned long> g_writes{0};
std::atomic<unsigned long> g_looks{0};

}  // namespace

extern "C" {
ssize_t __real_pwritev2(int fd, const iovec* pieces, int count, off_t offset, int flags);
ssize_t __wrap_pwritev2(int fd, const iovec* pieces, int count, off_t offset, int flags) {
    ++g_writes;
    if (g_takes_all) return __real_pwritev2(fd, pieces, count, offset, 0);
    if ((flags & ~g_known_flags) == 0) return __real_pwritev2(fd, pieces, count, offset, flags);
    errno = EOPNOTSUPP;
    return -1;
}
int __real_fstat(int fd, struct stat* status);
int __wrap_fstat(int fd, struct stat* status) {
    ++g_looks;
    return __real_fstat(fd, status);
}
}

namespace {

using test::CapturedLog;
using test::Descriptor;
using test::SplitLines;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

constexpr char kFile[] = "/build/usbservice/src/board/UPort.cpp";

constexpr auto kIdentityAge = std::chrono::milliseconds(2);  // by then a new name has been seen

// The log function without the compiler's knowledge of formats: tests hand it what no caller may write.
constexpr void (*kPrint)(const char*, const char*, int, int, int, int, const char*, ...) = ka_log_print;

template <typename... Values>
void Log(const char* format, Values... values) {
    kPrint(kFile, "CalcUsbPort", 42, 128, 2816, 0, format, values...);
}

// What a line says after its head and place.
std::string TextOf(const std::string& line) {
    const std::string place = "UPort.cpp:42 CalcUsbPort: ";
    const std::size_t at = line.find(place);
    return at == std::string::npos ? "no place in: " + line : line.substr(at + place.size());
}

// What one line says.
template <typename... Values>
std::string Logged(const char* format, Values... values) {
    CapturedLog log;
    Log(format, values...);
    const std::vector<std::string> lines = log.Lines();
    return lines.size() == 1 ? TextOf(lines[0]) : "not one line";
}

// Standard error is a pipe while it lives.
class PipedLog {
public:
    explicit PipedLog(int bytes = 0) : m_before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_reader = Descriptor(ends[0]);
        if (bytes > 0) {
            EXPECT_GE(fcntl(ends[1], F_SETPIPE_SZ, bytes), bytes);
        }
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
    ~PipedLog() { Finish(); }
    void Finish() { dup2(m_before.get(), STDERR_FILENO); }  // the reader then sees the end
    void LoseReader() { m_reader.Close(); }
    int reader() const { return m_reader.get(); }

    std::string ReadWhatIsThere() {
        std::string text;
        char piece[4096];
        pollfd descriptor{reader(), POLLIN, 0};
        while (poll(&descriptor, 1, 0) > 0) {
            const ssize_t count = read(reader(), piece, sizeof piece);
            if (count <= 0) break;
            text.append(piece, static_cast<std::size_t>(count));
        }
        return text;
    }
    std::string ReadToTheEnd() {
        std::string text;
        char piece[65536];
        for (ssize_t count = 0; (count = read(reader(), piece, sizeof piece)) > 0;)
            text.append(piece, static_cast<std::size_t>(count));
        return text;
    }

private:
    Descriptor m_before;
    Descriptor m_reader;
};

// "(12 lines lost) " stands before the place.
unsigned long LostBefore(const std::string& line) {
    const std::size_t end = line.find(" lines lost) UPort.cpp");
    const std::size_t begin = line.rfind('(', end);
    return end == std::string::npos || begin == std::string::npos ? 0 : std::stoul(line.substr(begin + 1));
}

TEST(TraceLine, SaysTimeLevelModuleThreadAndPlace) {
    pthread_setname_np(pthread_self(), "bench");
    std::this_thread::sleep_for(kIdentityAge);
    CapturedLog log;
    ka_log_print(kFile, "CalcUsbPort", 42, 192, 3584, 1792, "port:%d", 12);
    EXPECT_THAT(log.Lines(), ElementsAre(MatchesRegex("\\[ *[0-9]+\\.[0-9]{6}\\] 192 3584\\.1792 " +
                                                      std::to_string(gettid()) +
                                                      "/bench UPort\\.cpp:42 CalcUsbPort: port:12")));
}

TEST(TraceLine, NullTextIsPrintedAsNull) {
    const char* volatile null = nullptr;  // unknown to the compiler
    EXPECT_EQ(Logged<const char*>("vol ret (%s,%s)", null, "x"), "vol ret ((null),x)");
    EXPECT_EQ(Logged(static_cast<const char*>(nullptr)), "(null)");
    CapturedLog log;
    ka_log_print(nullptr, nullptr, 1, 192, 1, 0, "%s", "text");
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith(" ?:1 ?: text")));
}

TEST(TraceLine, EscapesControlBytesSoThatOneCallIsOneLine) {
    EXPECT_EQ(Logged("%s", "a\nb\rc\td\x1b[31me\x7f"), "a\\x0ab\\x0dc\\x09d\\x1b[31me\\x7f");
    EXPECT_EQ(Logged("broken\n"), "broken\\x0a");
    EXPECT_EQ(Logged("%s", "\xC2\x9B"), "\\xc2\\x9b");  // a control character of two bytes
    EXPECT_EQ(Logged("%s", "%n%s"), "%n%s");
}

TEST(TraceLine, KeepsValidUtf8AndEscapesTheRest) {
    const std::string valid = "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x8C \xC2\xA0";
    EXPECT_EQ(Logged("%s", valid.c_str()), valid);
    EXPECT_EQ(Logged("%s", "a\xFFz"), "a\\xffz");
    EXPECT_EQ(Logged("%s", "a\xC3"), "a\\xc3");  // its second byte is missing
    EXPECT_EQ(Logged("%s", "\xC3z"), "\\xc3z");
    EXPECT_EQ(Logged("%s", "\xA9"), "\\xa9");
    EXPECT_EQ(Logged("%s", "\xC0\x8A"), "\\xc0\\x8a");  // overlong newline
    EXPECT_EQ(Logged("%s", "\xE0\x80\x8A"), "\\xe0\\x80\\x8a");
    EXPECT_EQ(Logged("%s", "\xF0\x80\x80\x8A"), "\\xf0\\x80\\x80\\x8a");
    EXPECT_EQ(Logged("%s", "\xED\xA0\x80"), "\\xed\\xa0\\x80");           // surrogate
    EXPECT_EQ(Logged("%s", "\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // above the last character
}

TEST(TraceLine, EveryByteIsTreatedAlikeWhereverItStands) {
    CapturedLog log;
    std::vector<std::string> expected;
    for (int byte = 1; byte < 256; ++byte)
        for (std::size_t at = 0; at < 9; ++at) {
            std::string text = "0123456789abcdefgh";
            text[at] = static_cast<char>(byte);
            Log("%s", text.c_str());
            if (byte < 0x20 || byte >= 0x7F) {
                char escaped[5];
                std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
                text.replace(at, 1, escaped);
            }
            expected.push_back(text);
        }
    std::vector<std::string> said;
    for (const std::string& line : log.Lines())
        said.push_back(TextOf(line));
    EXPECT_EQ(said, expected);
}

TEST(TraceLine, NumbersOfEveryKindStandInTheHead) {
    CapturedLog log;
    ka_log_print(kFile, "f", INT_MIN, INT_MAX, INT_MIN, -1, "x");
    EXPECT_THAT(log.Lines(), ElementsAre(AllOf(HasSubstr("] 2147483647 -2147483648.-1 "),
                                               EndsWith(" UPort.cpp:-2147483648 f: x"))));
}

TEST(TraceLine, TextIsCutOnlyWhenItDoesNotFit) {
    std::size_t longest = 0;
    std::size_t first_cut = 0;
    for (std::size_t count = 3900; count < 4200; ++count) {
        const std::string text(count, 'x');
        const std::string said = Logged("%s", text.c_str());
        if (said == text) {
            ASSERT_EQ(first_cut, 0u);
            longest = count;
            continue;
        }
        if (first_cut == 0) first_cut = count;
        ASSERT_EQ(said, std::string(longest, 'x') + "[...]");
    }
    EXPECT_EQ(first_cut, longest + 1);
    CapturedLog log;
    Log("%s", std::string(longest, 'x').c_str());
    EXPECT_EQ(log.Lines().at(0).size() + sizeof "[...]", static_cast<std::size_t>(PIPE_BUF) - 1);
}

TEST(TraceLine, LongTextIsCutAtPipeBufWithAMark) {
    CapturedLog log;
    Log("%s", std::string(10000, 'x').c_str());
    Log("%s", "next");
    const std::vector<std::string> lines = log.Lines();
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_LT(lines[0].size(), static_cast<std::size_t>(PIPE_BUF));
    EXPECT_GT(lines[0].size(), static_cast<std::size_t>(PIPE_BUF) - 16);
    EXPECT_THAT(lines[0], EndsWith("xxx[...]"));
    EXPECT_EQ(TextOf(lines[1]), "next");
}

TEST(TraceLine, TheCutBreaksNeitherACharacterNorAnEscape) {
    for (const char* unit : {"\xF0\x9F\x94\x8C", "\xE2\x82\xAC", "\xC3\xA9", "\x01"})
        for (std::size_t shift = 0; shift < 4; ++shift) {
            std::string text(shift, 'x');
            while (text.size() < 8000)
                text += unit;
            std::string said = Logged("%s", text.c_str());
            ASSERT_THAT(said, EndsWith("[...]"));
            said.resize(said.size() - 5);
            const std::string shown = *unit == '\x01' ? "\\x01" : unit;
            ASSERT_EQ((said.size() - shift) % shown.size(), 0u) << said.substr(said.size() - 12);
            ASSERT_THAT(said, EndsWith(shown));
        }
}

TEST(TraceLine, LongNamesOfPlacesLeaveRoomForTheText) {
    CapturedLog log;
    const std::string name(3000, 'n');
    ka_log_print(name.c_str(), name.c_str(), 1, 192, 1, 0, "%s", "the text");
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith(": the text")));
}

TEST(TraceLevel, LineBelowTheThresholdIsNotWritten) {
    CapturedLog log;
    const int before = ka_log_threshold;
    ka_log_threshold = 160;
    ka_log_print(kFile, "f", 1, 159, 2816, 0, "below");
    ka_log_print(kFile, "f", 1, 160, 2816, 0, "at");
    ka_log_threshold = before;
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("f: at")));
}

TEST(TraceCall, KeepsErrnoAndShowsItToTheFormat) {
    CapturedLog log;
    errno = ENOENT;
    Log("%m");
    EXPECT_EQ(errno, ENOENT);
    PipedLog pipe;
    pipe.LoseReader();
    errno = EBUSY;
    Log("nobody reads");
    EXPECT_EQ(errno, EBUSY);
    pipe.Finish();
    EXPECT_EQ(TextOf(log.Lines()[0]), "No such file or directory");
    Log("clears the count of lost lines");
}

TEST(TraceCall, AllocatesNothing) {
    CapturedLog log;
    const std::string text(2000, '\n');
    const unsigned long before = test::g_allocations;
    for (int i = 0; i < 10; ++i)
        Log("%s %d %p", text.c_str(), i, static_cast<const void*>(&log));
    EXPECT_EQ(test::g_allocations - before, 0u);
}

// Runs the writer in a process of its own and returns what it wrote.
std::string WriterSays(const std::vector<std::pair<std::string, std::string>>& environment,
                       const std::vector<std::string>& lines, bool journal = false) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    struct stat status;
    fstat(ends[1], &status);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    std::vector<char*> arguments{const_cast<char*>(WRITER_PROGRAM)};
    for (const std::string& line : lines)
        arguments.push_back(const_cast<char*>(line.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        for (const auto& [name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        if (journal) setenv("JOURNAL_STREAM", stream.c_str(), 1);
        dup2(ends[1], STDERR_FILENO);
        execv(WRITER_PROGRAM, arguments.data());
        _exit(127);
    }
    close(ends[1]);
    std::string text;
    char piece[4096];
    for (ssize_t count = 0; (count = read(ends[0], piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<std::size_t>(count));
    close(ends[0]);
    int result = 0;
    EXPECT_EQ(waitpid(child, &result, 0), child);
    EXPECT_EQ(result, 0);
    return text;
}

TEST(TraceStart, JournalGetsItsPriorityInFrontOfTheLine) {
    EXPECT_THAT(
        SplitLines(WriterSays({{"KA_LOG_LEVEL", "32"}}, {"192:a", "160:b", "128:c", "64:d", "32:e"}, true)),
        ElementsAre(MatchesRegex("<3>192 2816\\.0 .*Writer\\.cpp:7 main: a"), MatchesRegex("<4>160 .*: b"),
                    MatchesRegex("<6>128 .*: c"), MatchesRegex("<7>64 .*: d"), MatchesRegex("<7>32 .*: e")));
}

TEST(TraceStart, JournalStreamOfSomethingElseIsIgnored) {
    for (const char* stream : {"1:1", "", "nonsense", "1"})
        EXPECT_THAT(WriterSays({{"JOURNAL_STREAM", stream}}, {"192:a"}),
                    MatchesRegex("\\[ *[0-9].*main: a\n"));
}

TEST(TraceStart, ThresholdComesFromTheEnvironment) {
    EXPECT_THAT(SplitLines(WriterSays({}, {"127:no", "128:yes"})), ElementsAre(EndsWith(": yes")));
    EXPECT_THAT(SplitLines(WriterSays({{"KA_LOG_LEVEL", "192"}}, {"160:no", "192:yes"})),
                ElementsAre(EndsWith(": yes")));
    EXPECT_THAT(SplitLines(WriterSays({{"KA_LOG_LEVEL", "0"}}, {"0:yes"})), ElementsAre(EndsWith(": yes")));
}

TEST(TraceStart, ThresholdThatIsNoNumberIsReportedAndLeftOut) {
    for (const char* level : {"loud", "", "12x", "-1", "99999999999999999999"})
        EXPECT_THAT(SplitLines(WriterSays({{"KA_LOG_LEVEL", level}}, {"127:no", "128:yes"})),
                    ElementsAre(HasSubstr(std::string("KA_LOG_LEVEL is no level: \"") + level + "\""),
                                EndsWith(": yes")));
}

TEST(TraceThreads, LinesOfManyThreadsNeverMixEvenWhenTheyAreTooLong) {
    PipedLog pipe;
    std::string text;
    std::thread reader([&] { text = pipe.ReadToTheEnd(); });
    constexpr int kThreads = 6;
    constexpr int kLines = 150;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kThreads; ++writer)
        writers.emplace_back([writer] {
            for (int i = 0; i < kLines; ++i)
                Log("%s",
                    std::string(static_cast<std::size_t>(i * 61 % 6000), static_cast<char>('a' + writer))
                        .c_str());
        });
    for (std::thread& writer : writers)
        writer.join();
    pipe.Finish();
    reader.join();

    unsigned long said = 0;
    for (const std::string& line : SplitLines(text)) {
        ASSERT_LE(line.size(), static_cast<std::size_t>(PIPE_BUF));
        std::string body = TextOf(line);
        if (body.size() > 5 && body.ends_with("[...]")) body.resize(body.size() - 5);
        ASSERT_TRUE(body.empty() || body == std::string(body.size(), body[0])) << line;
        said += 1 + LostBefore(line);
    }
    // What a starved reader costs is counted on a later line, or is still to be reported.
    CapturedLog log;
    Log("last");
    said += LostBefore(log.Lines()[0]);
    EXPECT_EQ(said, static_cast<unsigned long>(kThreads * kLines));
}

// On kernels of several ages: a write may be told not to wait since Linux 6.4, and not to signal since 6.18.
struct TraceReader : ::testing::TestWithParam<int> {
    TraceReader() { g_known_flags = GetParam(); }
    ~TraceReader() override { g_known_flags = kEveryFlag; }
};
INSTANTIATE_TEST_SUITE_P(Kernels, TraceReader, ::testing::Values(0, int{RWF_NOWAIT}, kEveryFlag),
                         [](const auto& flags) {
                             return flags.param == 0            ? "Old"
                                    : flags.param == RWF_NOWAIT ? "Linux6_4"
                                                                : "Linux6_18";
                         });

TEST_P(TraceReader, DeadReaderKillsNobodyAndTheLossIsReported) {
    PipedLog pipe;
    pipe.LoseReader();
    for (int i = 0; i < 100; ++i)
        Log("nobody reads");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
    pipe.Finish();
    CapturedLog log;
    Log("somebody does");
    Log("and again");
    EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr(" (100 lines lost) UPort"), HasSubstr(" UPort")));
    EXPECT_EQ(LostBefore(log.Lines()[1]), 0u);
}

TEST_P(TraceReader, SignalThatWaitedBeforeTheLineStillWaits) {
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
    raise(SIGPIPE);
    {
        PipedLog pipe;
        pipe.LoseReader();
        Log("nobody reads");
        Log("nor this");
    }
    const timespec at_once{};
    EXPECT_EQ(sigtimedwait(&pipe_signal, nullptr, &at_once), SIGPIPE);
    EXPECT_EQ(sigtimedwait(&pipe_signal, nullptr, &at_once), -1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    CapturedLog log;
    Log("clears the count of lost lines");
}

TEST_P(TraceReader, StoppedReaderOfAPipeWithANameStopsNobody) {
    const std::string path = "/tmp/trace-test-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    Descriptor reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Descriptor writer(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    unlink(path.c_str());
    Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(writer.get(), STDERR_FILENO);
    for (int i = 0; i < 100; ++i)
        Log("%s", std::string(3000, 'x').c_str());
    reader.Close();
    Log("nobody reads");
    dup2(before.get(), STDERR_FILENO);
    CapturedLog log;
    Log("next");
    EXPECT_GT(LostBefore(log.Lines()[0]), 50u);
}

TEST_P(TraceReader, EachLineGoesToWhatStandardErrorIsByThen) {
    Descriptor screen(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(screen.get()), 0);
    ASSERT_EQ(unlockpt(screen.get()), 0);
    Descriptor terminal(open(ptsname(screen.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    Descriptor peer(ends[0]);
    Descriptor socket(ends[1]);
    Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const auto said = [](int reader) {
        char line[PIPE_BUF];
        pollfd descriptor{reader, POLLIN, 0};
        const ssize_t count = poll(&descriptor, 1, 0) > 0 ? read(reader, line, sizeof line) : 0;
        return count > 0 ? TextOf(SplitLines({line, static_cast<std::size_t>(count)})[0]) : "nothing";
    };
    CapturedLog file;
    PipedLog pipe(4096);
    enum E_WHAT { PIPE, FILE, SOCKET, TERMINAL, NOWHERE, CLOSED, WHATS };
    Descriptor pipe_end(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    const auto become = [&](E_WHAT what) {
        const int ends_of[] = {pipe_end.get(), file.file(), socket.get(), terminal.get(), null.get()};
        if (what == CLOSED)
            close(STDERR_FILENO);
        else
            dup2(ends_of[what], STDERR_FILENO);
    };
    // From each to each.
    for (int from = PIPE; from < WHATS; ++from)
        for (int to = PIPE; to < CLOSED; ++to) {
            become(static_cast<E_WHAT>(from));
            Log("one");
            pipe.ReadWhatIsThere();
            said(peer.get());
            said(screen.get());
            const std::size_t lines = file.Lines().size();
            become(static_cast<E_WHAT>(to));
            Log("two");
            EXPECT_EQ(said(pipe.reader()), to == PIPE ? "two" : "nothing") << from << to;
            EXPECT_EQ(said(peer.get()), to == SOCKET ? "two" : "nothing") << from << to;
            EXPECT_EQ(said(screen.get()), to == TERMINAL ? "two\r" : "nothing") << from << to;
            EXPECT_EQ(file.Lines().size(), lines + (to == FILE)) << from << to;
        }
    // And a pipe whose reader stopped stops nobody, whatever was there before it.
    for (int from = FILE; from < WHATS; ++from) {
        become(static_cast<E_WHAT>(from));
        Log("one");
        become(PIPE);
        for (int i = 0; i < 3; ++i)
            Log("%s", std::string(3000, 'x').c_str());
        EXPECT_EQ(SplitLines(pipe.ReadWhatIsThere()).size(), 1u) << from;
    }
    become(FILE);
    Log("clears the count of lost lines");
}

TEST_P(TraceReader, ReaderOfAPipeThatIsStandardErrorNoMoreSeesTheEnd) {
    PipedLog pipe;
    Log("line");
    pipe.Finish();
    EXPECT_THAT(SplitLines(pipe.ReadToTheEnd()), SizeIs(1));
}

TEST(TraceCall, WritesALineByOneSystemCall) {
    PipedLog pipe;
    g_takes_all = true;
    Log("the first one looks");
    const unsigned long writes = g_writes;
    const unsigned long looks = g_looks;
    for (int i = 0; i < 10; ++i)
        Log("line");
    EXPECT_EQ(g_writes - writes, 10u);
    EXPECT_EQ(g_looks - looks, 0u);
    g_takes_all = false;
}

TEST(TraceThreads, RenamedThreadIsShownByItsNewName) {
    CapturedLog log;
    std::thread([] {
        pthread_setname_np(pthread_self(), "first");
        Log("one");
        pthread_setname_np(pthread_self(), "second");
        std::this_thread::sleep_for(kIdentityAge);
        Log("two");
        pthread_setname_np(pthread_self(), "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f");
        std::this_thread::sleep_for(kIdentityAge);
        Log("three");
        Log("four");
    }).join();
    const std::string worst =
        "/\\x01\\x02\\x03\\x04\\x05\\x06\\x07\\x08\\x09\\x0a\\x0b\\x0c\\x0d\\x0e\\x0f UPort.cpp";
    EXPECT_THAT(log.Lines(),
                ElementsAre(HasSubstr("/first "), HasSubstr("/second "), HasSubstr(worst), HasSubstr(worst)));
}

TEST_P(TraceReader, DeadReaderOfASocketKillsNobody) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    Log("read");
    char line[PIPE_BUF];
    EXPECT_GT(read(ends[0], line, sizeof line), 0);
    close(ends[0]);
    Log("not read");
    dup2(before.get(), STDERR_FILENO);
    CapturedLog log;
    Log("next");
    EXPECT_EQ(LostBefore(log.Lines()[0]), 1u);
}

TEST_P(TraceReader, StoppedReaderDelaysOneLineAndLosesTheOthersAtOnce) {
    PipedLog pipe(4096);
    constexpr unsigned long kLines = 3000;
    const auto begin = std::chrono::steady_clock::now();
    for (unsigned long i = 0; i < kLines; ++i)
        Log("line %lu of many that fill the pipe", i);
    // Were each to wait, it would be minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    const std::vector<std::string> kept = SplitLines(pipe.ReadWhatIsThere());
    ASSERT_LT(kept.size(), 100u);
    Log("read again");
    const std::vector<std::string> after = SplitLines(pipe.ReadWhatIsThere());
    ASSERT_THAT(after, SizeIs(1));
    EXPECT_EQ(LostBefore(after[0]), kLines - kept.size());
    EXPECT_EQ(TextOf(after[0]), "read again");
    for (std::size_t i = 0; i < kept.size(); ++i)
        EXPECT_EQ(TextOf(kept[i]), "line " + std::to_string(i) + " of many that fill the pipe");
}

TEST_P(TraceReader, StoppedReaderStopsNoneOfSeveralThreads) {
    for (int round = 0; round < 10; ++round) {
        PipedLog pipe(4096);
        std::atomic<int> done{0};
        std::vector<std::thread> writers;
        for (int writer = 0; writer < 4; ++writer)
            writers.emplace_back([&done] {
                for (int i = 0; i < 60; ++i)
                    Log("%s", "all of them see the last free bytes");
                ++done;
            });
        EXPECT_TRUE(test::Eventually([&] { return done == 4; }));
        pipe.LoseReader();  // whoever is stuck is so no more
        for (std::thread& writer : writers)
            writer.join();
    }
    CapturedLog log;
    Log("clears the count of lost lines");
    EXPECT_GT(LostBefore(log.Lines()[0]), 0u);
}

TEST_P(TraceReader, TerminalThatShowsNothingStopsNobody) {
    Descriptor screen(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(screen.get()), 0);
    ASSERT_EQ(unlockpt(screen.get()), 0);
    Descriptor terminal(open(ptsname(screen.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_GE(terminal.get(), 0);
    Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(terminal.get(), STDERR_FILENO);
    std::atomic<bool> done{false};
    std::thread writer([&done] {
        for (int i = 0; i < 100; ++i)
            Log("%s", std::string(3000, 'x').c_str());
        done = true;
    });
    EXPECT_TRUE(test::Eventually([&] { return done.load(); }));
    dup2(before.get(), STDERR_FILENO);
    terminal.Close();
    screen.Close();  // hangs up: whoever is stuck is so no more
    writer.join();
    CapturedLog log;
    Log("next");
    EXPECT_GT(LostBefore(log.LinesWith("next").at(0)), 0u);
}

TEST_P(TraceReader, StoppedReaderOfASocketStopsNobody) {
    // A socket is written without waiting too; here its buffer fills.
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    const std::string text(3000, 'x');
    for (int i = 0; i < 1000; ++i)
        Log("%s", text.c_str());
    dup2(before.get(), STDERR_FILENO);
    close(ends[0]);
    CapturedLog log;
    Log("next");
    EXPECT_GT(LostBefore(log.Lines()[0]), 500u);
}

TEST(TraceFile, HalfALineIsFinishedByANewlineBeforeTheNextOne) {
    char path[] = "/tmp/trace-test-XXXXXX";
    Descriptor file(mkstemp(path));
    unlink(path);
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        dup2(file.get(), STDERR_FILENO);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        const rlimit small{100, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        Log("%s", std::string(200, 'x').c_str());
        setrlimit(RLIMIT_FSIZE, &limit);
        Log("whole");
        _exit(0);
    }
    int result = 0;
    ASSERT_EQ(waitpid(child, &result, 0), child);
    std::string text(4096, '\0');
    text.resize(static_cast<std::size_t>(pread(file.get(), text.data(), text.size(), 0)));
    const std::vector<std::string> lines = SplitLines(text);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_THAT(lines[0], AllOf(SizeIs(100), EndsWith("xx")));
    EXPECT_EQ(TextOf(lines[1]), "whole");
    EXPECT_EQ(LostBefore(lines[1]), 1u);
}

TEST_P(TraceReader, ClosedStandardErrorHarmsNobody) {
    Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    close(STDERR_FILENO);
    Log("nowhere");
    dup2(before.get(), STDERR_FILENO);
    CapturedLog log;
    Log("next");
    EXPECT_EQ(LostBefore(log.Lines()[0]), 1u);
}

TEST(TraceCall, LeavesNoDescriptorBehind) {
    PipedLog pipe;
    const std::size_t before = test::OpenDescriptors();
    for (int i = 0; i < 50; ++i)
        Log("line");
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(TraceFork, ChildLogsWhileAnotherThreadLogsInALoop) {
    CapturedLog log;
    std::atomic<bool> done{false};
    std::thread busy([&] {
        while (!done)
            Log("busy");
    });
    constexpr int kForks = 30;
    std::vector<pid_t> children;
    for (int i = 0; i < kForks; ++i) {
        Log("parent");
        const pid_t child = fork();
        if (child == 0) {
            Log("child");
            _exit(0);
        }
        int result = -1;
        const bool ended = test::Eventually([&] { return waitpid(child, &result, WNOHANG) == child; });
        if (!ended) {
            kill(child, SIGKILL);
            waitpid(child, &result, 0);
        }
        EXPECT_TRUE(ended) << "the child hangs";
        EXPECT_EQ(result, 0);
        children.push_back(child);
    }
    done = true;
    busy.join();
    std::vector<std::string> said;  // by others than the busy thread
    for (const std::string& line : log.Lines())
        if (!line.ends_with(": busy")) said.push_back(line);
    ASSERT_THAT(said, SizeIs(2 * kForks));
    for (int i = 0; i < kForks; ++i) {
        EXPECT_THAT(said[2 * i], HasSubstr(" " + std::to_string(gettid()) + "/"));
        EXPECT_THAT(said[2 * i], EndsWith(": parent"));
        EXPECT_THAT(said[2 * i + 1], HasSubstr(" " + std::to_string(children[i]) + "/"));
        EXPECT_THAT(said[2 * i + 1], EndsWith(": child"));
    }
}

}  // namespace
