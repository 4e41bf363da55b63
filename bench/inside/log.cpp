// What a line of the trace log costs, beside a bare write of as many bytes to the same pipe.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Log.h"

namespace {

constexpr std::size_t kLineBytes = 120;
constexpr int kPipeBytes = 1024 * 1024;  // so that a reader that has no processor for a while stops nobody
// A reader that waits for each line would have to be woken by each, which costs more than the line.
constexpr int kReaderPauseUs = 1000;

// Standard error is a pipe that another process reads now and then, while it lives.
class ReadLog {
public:
    ReadLog() : m_before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0 || fcntl(ends[1], F_SETPIPE_SZ, kPipeBytes) < 0) std::abort();
        m_reader = fork();
        if (m_reader == 0) {
            close(ends[1]);
            static char bytes[kPipeBytes];
            while (read(ends[0], bytes, sizeof bytes) > 0)
                usleep(kReaderPauseUs);
            _exit(0);
        }
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
    ~ReadLog() {
        dup2(m_before, STDERR_FILENO);
        close(m_before);
        waitpid(m_reader, nullptr, 0);
    }
    ReadLog(const ReadLog&) = delete;
    ReadLog& operator=(const ReadLog&) = delete;

private:
    const int m_before;
    pid_t m_reader = -1;
};

// A line of 120 bytes with its head.
void Log(int port) {
    ka_log_print("/build/usbservice/src/port/UPort.cpp", "SetState", 471, 128, 2816, 0,
                 "port:%d state %s -> %s, %d of them", port, "E_DISCONNECTED", "E_CONNECTED_X", 3);
}

void BareWrite(benchmark::State& state) {
    ReadLog log;
    const std::string line(kLineBytes, 'x');
    for (auto _ : state)
        if (write(STDERR_FILENO, line.data(), line.size()) < 0) state.SkipWithError("not written");
}
BENCHMARK(BareWrite)->Name("log/bare_write")->Repetitions(5)->ReportAggregatesOnly();

void WrittenLine(benchmark::State& state) {
    ReadLog log;
    for (auto _ : state)
        Log(12);
}
BENCHMARK(WrittenLine)->Name("log/written")->Repetitions(5)->ReportAggregatesOnly();

void FilteredCall(benchmark::State& state) {
    const int before = ka_log_threshold;
    ka_log_threshold = 160;
    for (auto _ : state)
        Log(12);
    ka_log_threshold = before;
}
BENCHMARK(FilteredCall)->Name("log/filtered_call")->Repetitions(5)->ReportAggregatesOnly();

// As the code logs: its macros compare first.
void FilteredLine(benchmark::State& state) {
    const int before = ka_log_threshold;
    ka_log_threshold = 160;
    for (auto _ : state) {
        PLOG(platform::LOG_INFO, "port:%d", 12);
        benchmark::ClobberMemory();
    }
    ka_log_threshold = before;
}
BENCHMARK(FilteredLine)->Name("log/filtered")->Repetitions(5)->ReportAggregatesOnly();

}  // namespace
