#include "Wraps.h"

#include <unistd.h>

#include <cerrno>
#include <new>

#include "support/FailingMutex.h"

namespace test {

Outside outside;

void MoveClock(long long milliseconds) {
    const long long nanoseconds = outside.now.tv_nsec + milliseconds * 1000000;
    outside.now.tv_sec += nanoseconds / 1000000000;
    outside.now.tv_nsec = nanoseconds % 1000000000;
}

}  // namespace test

using test::outside;

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* now);
void* __real__Znwm(std::size_t size);
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (!outside.clock_is_ours || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
    if (outside.clock_error) {
        errno = outside.clock_error;
        return -1;
    }
    *now = outside.now;
    return 0;
}

int __wrap_usleep(useconds_t time) {
    outside.sleeps.push_back(time);
    test::MoveClock(time / 1000);
    return 0;
}

void* __wrap__Znwm(std::size_t size) {
    if (outside.new_fails_for == size) throw std::bad_alloc();
    return __real__Znwm(size);
}

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return outside.nothrow_new_fails ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

// USpawn::RunCmd(const char*)
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    outside.commands.emplace_back(command);
    if (outside.while_command) outside.while_command();
    errno = outside.command_error;
    return outside.command_result;
}
}
