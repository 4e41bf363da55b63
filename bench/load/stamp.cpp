// Writes the time as the trace log does, and becomes the program named: when it was started.
#include <unistd.h>

#include <cstdio>
#include <ctime>

int main(int, char** arguments) {
    if (!arguments[1]) return 2;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    dprintf(STDERR_FILENO, "[%5lld.%06ld] exec\n", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000);
    execv(arguments[1], arguments + 1);
    std::perror(arguments[1]);
    return 1;
}
