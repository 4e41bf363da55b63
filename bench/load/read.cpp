// What reading an attribute a byte at a time costs, as the service must: nanoseconds per byte.
//
//   bench_read FILE
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace {

constexpr int kRounds = 2000;

double Now() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

}  // namespace

int main(int count, char** arguments) {
    const int fd = count == 2 ? open(arguments[1], O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        std::perror("bench_read FILE");
        return 1;
    }
    long reads = 0;
    const double begin = Now();
    for (int round = 0; round < kRounds; ++round) {
        lseek(fd, 0, SEEK_SET);
        char byte;
        do
            ++reads;
        while (read(fd, &byte, 1) == 1);
    }
    std::printf("%.1f\n", (Now() - begin) / static_cast<double>(reads));
}
