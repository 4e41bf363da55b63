#include "Stop.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include "ExitCode.h"

namespace kipcsend {

namespace {

// Without those that whoever started this process wants ignored, as nohup does.
sigset_t Signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action;
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&signals, signal);
    }
    return signals;
}

}  // namespace

Stop::Stop() {
    const sigset_t signals = Signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signals = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int Stop::Take() const {
    signalfd_siginfo signal{};
    return read(m_signals.Get(), &signal, sizeof signal) == sizeof signal ? static_cast<int>(signal.ssi_signo)
                                                                          : 0;
}

void Stop::EndBy(int signal) {
    const sigset_t signals = Signals();
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    raise(signal);
    _exit(EXIT_SIGNAL + signal);
}

}  // namespace kipcsend
