// usbservice-ports: what is plugged where, each port's state, mounts, settings and counters, as a table or as
// JSON. Asks the service's status socket; nothing that it does reaches the service's own threads.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "ports/Ask.h"
#include "ports/Json.h"
#include "ports/Options.h"
#include "ports/Screen.h"
#include "ports/Table.h"
#include "ports/View.h"

namespace {

using namespace ports;

void Say(const std::string& text) {
    std::fprintf(stderr, "usbservice-ports: %s\n", text.c_str());
}

// From here on signals that end the program wait in the descriptor, so that the terminal is given back first.
int KeepSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int one : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigaddset(&signals, one);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a write says it
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

bool StoppedWithin(int stop, double seconds) {
    pollfd polled{stop, POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(seconds * 1000)) != 0;
}

struct Look {
    std::optional<View> view;
    int exit_code = EXIT_AS_ASKED;  // of a program that looks once
    std::string error;
    bool stopped = false;
};

Look LookAt(const Options& options, int stop) {
    Look look;
    std::vector<std::string> answer;
    const E_ASKED asked = Ask(options.folder, stop, &answer, &look.error);
    look.stopped = asked == ASKED_STOPPED;
    if (asked == ASKED_ANSWERED) {
        look.view = Read(answer, &look.error);
        look.exit_code = look.view ? EXIT_AS_ASKED : EXIT_NOT_UNDERSTOOD;
    } else if (asked != ASKED_STOPPED) {
        look.exit_code = EXIT_NO_ANSWER;
    }
    return look;
}

E_COLOUR ColourOf(const Options& options) {
    return kipc_tools::IsColoured(options.colour, isatty(STDOUT_FILENO)) ? COLOUR_ON : COLOUR_OFF;
}

std::string TextOf(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

// Who closed the pipe knows it, and so does who sent the signal.
int CannotWrite() {
    if (errno == ECANCELED) return EXIT_AS_ASKED;
    if (errno != EPIPE) Say(std::string("cannot write: ") + strerrordesc_np(errno));
    return EXIT_NO_ANSWER;
}

int ShowOnce(const Options& options, int stop) {
    const Look look = LookAt(options, stop);
    if (look.stopped) return EXIT_AS_ASKED;
    if (!look.view) {
        Say(look.error);
        return look.exit_code;
    }
    const std::string text =
        options.json ? JsonOf(*look.view) + "\n" : TextOf(TableOf(*look.view, ColourOf(options)));
    return WriteAll(STDOUT_FILENO, stop, text) ? EXIT_AS_ASKED : CannotWrite();
}

int ShowOnTerminal(const Options& options, int stop) {
    Screen screen(STDOUT_FILENO, stop);
    do {
        const Look look = LookAt(options, stop);
        if (look.stopped) break;
        const bool shown = screen.Show(look.view ? TableOf(*look.view, ColourOf(options))
                                                 : std::vector<std::string>{look.error});
        if (!shown) return CannotWrite();
    } while (!StoppedWithin(stop, options.interval_s));
    return EXIT_AS_ASKED;
}

// Stays when the service is restarted; says once that it does not answer.
int ShowChanges(const Options& options, int stop) {
    std::string before;
    std::string said;
    do {
        const Look look = LookAt(options, stop);
        if (look.stopped) break;
        if (!look.view) {
            if (look.error != said) Say(look.error);
            said = look.error;
            continue;
        }
        said.clear();
        const std::string now = JsonWithoutTime(*look.view);
        if (now == before) continue;
        before = now;
        const std::string text =
            options.json ? JsonOf(*look.view) + "\n" : TextOf(TableOf(*look.view, ColourOf(options))) + "\n";
        if (!WriteAll(STDOUT_FILENO, stop, text)) return CannotWrite();
    } while (!StoppedWithin(stop, options.interval_s));
    return EXIT_AS_ASKED;
}

}  // namespace

int main(int argc, char** argv) {
    int exit_code = EXIT_AS_ASKED;
    const std::optional<Options> options = ReadOptions(argc, argv, &exit_code);
    if (!options) return exit_code;
    const int stop = KeepSignals();
    if (options->once || (options->json && !options->watch)) return ShowOnce(*options, stop);
    if (!options->json && isatty(STDOUT_FILENO)) return ShowOnTerminal(*options, stop);
    return options->watch ? ShowChanges(*options, stop) : ShowOnce(*options, stop);
}
