// The change-notification driver "/dev/css" as a program, on CUSE: a process that has written a shared record
// says so by an ioctl, and each receiver finds the text in its inbox `<root>/<receiver>/settings`.
//
// One thread answers the kernel, the outbox's own delivers: a caller never waits for a receiver.
#define FUSE_USE_VERSION 314
#include <cuse_lowlevel.h>
#include <fcntl.h>
#include <fuse_log.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "Log.h"
#include "Outbox.h"
#include "Request.h"

namespace {

using platform::LOG_FAILED;
using platform::LOG_INFO;
using platform::LOG_REFUSED;

void Open(fuse_req_t request, fuse_file_info* file) {
    fuse_reply_open(request, file);
}

void AskFor(fuse_req_t request, const std::vector<css::Piece>& pieces) {
    std::vector<iovec> wanted;
    for (const css::Piece& piece : pieces)
        wanted.push_back({reinterpret_cast<void*>(static_cast<std::uintptr_t>(piece.address)), piece.bytes});
    fuse_reply_ioctl_retry(request, wanted.data(), wanted.size(), nullptr, 0);
}

void Ioctl(fuse_req_t request, int command, void* argument, fuse_file_info*, unsigned int, const void* bytes,
           std::size_t count, std::size_t) {
    const css::Step step =
        css::NextStep(static_cast<unsigned int>(command), reinterpret_cast<std::uintptr_t>(argument),
                      {static_cast<const char*>(bytes), count});
    switch (step.kind) {
        case css::STEP_READ:
            AskFor(request, step.pieces);
            break;
        case css::STEP_DELIVER:
            static_cast<platform::Outbox*>(fuse_req_userdata(request))
                ->Send(step.receivers, static_cast<unsigned int>(step.text.size()), step.text.data());
            fuse_reply_ioctl(request, 0, nullptr, 0);
            break;
        case css::STEP_REFUSE:
            // Any program that looks whether it has a terminal here asks an unknown command.
            if (step.error != ENOTTY)
                PLOG(LOG_REFUSED, "a request of pid %d: %s", static_cast<int>(fuse_req_ctx(request)->pid),
                     strerrordesc_np(step.error));
            fuse_reply_err(request, step.error);
            break;
    }
}

void Log(fuse_log_level level, const char* format, va_list arguments) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    text[std::strcspn(text, "\n")] = '\0';
    PLOG(level <= FUSE_LOG_WARNING ? LOG_FAILED : LOG_INFO, "%s", text);
}

// Signals come over a descriptor: one that arrives between two requests is never missed.
int BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int one : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, one);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before any thread is made: all inherit it
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

fuse_session* MakeDevice(platform::Outbox* outbox) {
    const char* names[] = {"DEVNAME=css"};
    cuse_info device{};
    device.dev_info_argc = 1;
    device.dev_info_argv = names;
    device.flags = CUSE_UNRESTRICTED_IOCTL;  // the request points to more memory of the caller
    cuse_lowlevel_ops operations{};
    operations.open = Open;
    operations.ioctl = Ioctl;
    char name[] = "css";
    char foreground[] = "-f";
    char* arguments[] = {name, foreground, nullptr};
    int threads = 0;
    return cuse_lowlevel_setup(2, arguments, &device, &operations, &threads, outbox);
}

// Until a signal comes: true. False when the device is gone.
bool Serve(fuse_session* session, int signals) {
    const int kernel = fuse_session_fd(session);
    fcntl(kernel, F_SETFL, fcntl(kernel, F_GETFL) | O_NONBLOCK);  // a request may be taken back
    fuse_buf request{};
    bool stopped = false;
    while (!stopped && !fuse_session_exited(session)) {
        pollfd polled[] = {{kernel, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(polled, 2, -1) < 0) continue;
        stopped = polled[1].revents != 0;
        if (polled[0].revents == 0) continue;
        const int count = fuse_session_receive_buf(session, &request);
        if (count > 0) fuse_session_process_buf(session, &request);
        if (count < 0 && count != -EINTR && count != -EAGAIN) break;
    }
    std::free(request.mem);
    return stopped;
}

}  // namespace

int main() {
    const int signals = BlockSignals();
    fuse_set_log_func(Log);
    platform::Outbox outbox("settings", platform::Outbox::HIDDEN);
    const std::unique_ptr<fuse_session, void (*)(fuse_session*)> session(MakeDevice(&outbox),
                                                                         cuse_lowlevel_teardown);
    if (signals < 0 || !session) {
        PLOG(LOG_FAILED, "no /dev/css");
        return EXIT_FAILURE;
    }
    if (!Serve(session.get(), signals)) {
        PLOG(LOG_FAILED, "the kernel has taken /dev/css away");
        return EXIT_FAILURE;
    }
    PLOG(LOG_INFO, "stopped");
    return EXIT_SUCCESS;
}
