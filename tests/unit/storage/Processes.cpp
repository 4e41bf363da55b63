#include "unit/storage/Processes.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <vector>

namespace test {

Processes processes;

int OpenDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<int>(std::distance(begin(descriptors), end(descriptors))) -
           1;  // one is the iterator's
}

namespace {

int Fail(int error) {
    errno = error;
    return -1;
}

}  // namespace
}  // namespace test

using test::Fail;
using test::processes;

extern "C" {

int __real_pipe2(int ends[2], int flags);
pid_t __real_fork();
int __real_dup2(int from, int to);
int __real_execv(const char* path, char* const arguments[]);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* timeout);
pid_t __real_waitpid(pid_t child, int* status, int options);
[[noreturn]] void __real__exit(int status);

int __wrap_pipe2(int ends[2], int flags) {
    processes.pipe_flags = flags;
    if (processes.pipe_error) return Fail(processes.pipe_error);
    const int result = __real_pipe2(ends, flags);
    if (result == 0 && processes.pipe_without_write_end) {
        close(ends[1]);
        ends[1] = -1;
    }
    return result;
}

pid_t __wrap_fork() {
    if (processes.fork_error) return Fail(processes.fork_error);
    return processes.play_child ? 0 : __real_fork();
}

int __wrap_dup2(int from, int to) {
    if (processes.dup2_error) return Fail(processes.dup2_error);
    return processes.play_child ? to : __real_dup2(from, to);
}

int __wrap_execv(const char* path, char* const arguments[]) {
    if (processes.play_child) {
        processes.executed = path;
        for (int index = 0; arguments[index]; ++index)
            processes.executed += std::string(" [") + arguments[index] + "]";
        return Fail(ENOENT);
    }
    if (processes.tool_missing) return Fail(ENOENT);
    std::vector<char*> line = {const_cast<char*>("sh"), const_cast<char*>("-c"), processes.script.data()};
    for (int index = 0; arguments[index]; ++index)
        line.push_back(arguments[index]);
    line.push_back(nullptr);
    return __real_execv("/bin/sh", line.data());
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* timeout) {
    ++processes.selects;
    if (processes.select_interruptions > 0) {
        --processes.select_interruptions;
        return Fail(EINTR);
    }
    if (processes.select_error) return Fail(processes.select_error);
    return __real_select(count, readable, writable, special, timeout);
}

pid_t __wrap_waitpid(pid_t child, int* status, int options) {
    if (processes.waitpid_interruptions > 0) {
        --processes.waitpid_interruptions;
        return Fail(EINTR);
    }
    const pid_t ended = __real_waitpid(child, status, options);
    if (processes.waitpid_error) return Fail(processes.waitpid_error);
    if (ended > 0) ++processes.waits;
    return ended;
}

[[noreturn]] void __wrap__exit(int status) {
    if (processes.play_child) throw test::Exited{status};
    __real__exit(status);
}
}
