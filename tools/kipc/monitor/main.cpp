// kipcmon: shows what the USB service sends and receives, from its tap or from a file that was kept of it.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "monitor/CaptureReader.h"
#include "monitor/Connections.h"
#include "monitor/Options.h"
#include "monitor/Output.h"
#include "monitor/Sink.h"
#include "monitor/Tap.h"

namespace {

using namespace kipcmon;
using Clock = std::chrono::steady_clock;

void Say(const std::string& text) {
    std::fprintf(stderr, "kipcmon: %s\n", text.c_str());
}

// Signals come over a descriptor: one that arrives between two records is never missed.
int BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int one : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, one);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

bool IsReadable(int descriptor) {
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, 0) > 0;
}

E_COLOUR ColourOf(const Options& options) {
    return kipc_tools::IsColoured(options.colour, isatty(STDOUT_FILENO)) ? COLOUR_ON : COLOUR_OFF;
}

int TimeLeft(const std::optional<Clock::time_point>& end) {
    if (!end) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
    constexpr std::int64_t kLongest = 3600 * 1000;  // then asked again
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongest));
}

// How the run ended, when neither the tap nor the file is to blame.
int ExitCodeOf(const Options& options, const Sink& sink) {
    if (sink.lost() > 0) Say("lost at the end: " + std::to_string(sink.lost()));
    if (sink.written() == WRITE_FAILED) {
        // Who closed the pipe knows it.
        if (sink.error() != EPIPE) Say(std::string("cannot write: ") + strerrordesc_np(sink.error()));
        return EXIT_FAILED;
    }
    return options.count > 0 && !sink.reached() ? EXIT_TOO_FEW : EXIT_AS_ASKED;
}

std::optional<Clock::time_point> EndOf(const Options& options) {
    if (!options.timeout_s) return std::nullopt;
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*options.timeout_s));
}

int Listen(const Options& options, const Tap& tap, Sink* sink, int stop) {
    const std::optional<Clock::time_point> end = EndOf(options);
    Say("listening at " + tap.path());
    std::string last_refusal;
    const auto take = [&](records::Bytes datagram, pid_t process) {
        std::string refusal;
        if (sink->Take(datagram, 0, &refusal)) return true;
        // It will connect again, and be refused again: said once.
        if (refusal != last_refusal) Say("hung up on process " + std::to_string(process) + ": " + refusal);
        last_refusal = refusal;
        return false;
    };
    const auto left = [](pid_t process) { Say("process " + std::to_string(process) + " has left"); };
    Connections connections(tap.listener(), take, left);
    while (!sink->over() && !IsReadable(stop)) {
        const int wait = TimeLeft(end);
        if (wait == 0) break;
        connections.Wait(stop, wait);
    }
    return ExitCodeOf(options, *sink);
}

int Show(const Options& options, Sink* sink) {
    std::ifstream file;
    if (options.read != "-") file.open(options.read, std::ios::binary);
    std::istream& input = options.read == "-" ? std::cin : file;
    if (!input) {
        Say(options.read + ": " + strerrordesc_np(errno));
        return EXIT_FAILED;
    }
    CaptureReader reader(&input);
    CapturedPacket packet;
    while (!sink->over()) {
        const E_CAPTURE found = reader.Next(&packet);
        if (found == CAPTURE_END) break;
        std::string refusal = reader.what();
        if (found == CAPTURE_BROKEN || !sink->Take(packet.bytes, packet.lost, &refusal)) {
            Say(options.read + ": " + refusal);
            return EXIT_BROKEN;
        }
    }
    return ExitCodeOf(options, *sink);
}

bool AreTheSameFile(const std::string& path, int descriptor) {
    struct stat one;
    struct stat other;
    return stat(path.c_str(), &one) == 0 && fstat(descriptor, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

// The file's descriptor, or -1 when it cannot be written, which is said.
int OpenCapture(const Options& options) {
    if (options.write == "-") return STDOUT_FILENO;
    // Emptied only when it is not the one that is read.
    const int descriptor = open(options.write.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    const bool reads_itself = descriptor >= 0 && AreTheSameFile(options.read, descriptor);
    if (!reads_itself && descriptor >= 0 && (ftruncate(descriptor, 0) == 0 || errno == EINVAL))
        return descriptor;
    Say(options.write + ": " + (reads_itself ? "cannot be read and written" : strerrordesc_np(errno)));
    if (descriptor >= 0) close(descriptor);
    return -1;
}

// `tap` is null for a file that is read.
int Run(const Options& options, const Tap* tap, int stop) {
    Output lines(STDOUT_FILENO, stop);
    std::unique_ptr<Output> capture;
    if (!options.write.empty()) {
        const int descriptor = OpenCapture(options);
        if (descriptor < 0) return EXIT_FAILED;
        capture = std::make_unique<Output>(descriptor, stop);
    }
    Sink sink(options, ColourOf(options), options.write == "-" ? nullptr : &lines, capture.get());
    return tap ? Listen(options, *tap, &sink, stop) : Show(options, &sink);
}

int RunLive(const Options& options) {
    const int stop = BlockSignals();
    Tap tap(options.folder);
    std::string said;
    const E_TAKE taken = tap.Take(&said);
    if (!said.empty()) Say(said);
    // Before anything is written: the file may be that of the monitor that listens.
    if (taken != TAKE_DONE) return taken == TAKE_TAKEN ? EXIT_TAKEN : EXIT_FAILED;
    return Run(options, &tap, stop);
}

}  // namespace

int main(int argc, char** argv) {
    int exit_code = EXIT_AS_ASKED;
    const std::optional<Options> options = ReadOptions(argc, argv, &exit_code);
    if (!options) return exit_code;
    std::signal(SIGPIPE, SIG_IGN);
    return options->read.empty() ? RunLive(*options) : Run(*options, nullptr, -1);
}
