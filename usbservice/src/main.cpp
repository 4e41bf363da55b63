#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include "frame/UBegin.h"

namespace {

void PassOver(int) {}

// Whoever started the service may have closed them. A pipe or socket that got one of these numbers would be
// taken for the log, and the block-id tool's answer on number 0 would never be read.
void OpenStandardDescriptors() {
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

void PrepareSignals() {
    struct sigaction action = {};
    // Whoever started the service may have ignored it, and waiting for a child would then fail.
    action.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &action, nullptr);
    // A reader of our standard error that died must not end the service. Caught, not ignored: the programs
    // that the service starts get the default back.
    action.sa_handler = PassOver;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

// One heap for all threads: they hardly ever want memory at the same moment, and a heap of its own for each
// would hold pages that nobody needs, and grow a page at a time.
void ShareOneHeap() {
    mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main() {
    ShareOneHeap();
    OpenStandardDescriptors();
    PrepareSignals();
    new dcm::UBegin;  // lives as long as the process
    for (;;)
        sleep(10);
}
