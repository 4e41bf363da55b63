// The C library as the helpers see it: can run out of memory, be interrupted, refuse a process.
#pragma once

#include <cstddef>
#include <map>
#include <set>

namespace test {

struct Libc {
    // Memory: while `counted` is set, allocations of the helpers are written down.
    bool counted = false;
    std::map<void*, std::size_t> held;  // handed out by malloc and not yet freed
    int copies_until_failure = -1;      // 0: the next one fails, and no later one; negative: none does

    // Descriptors.
    int open_flags = -1;        // of the last open
    std::set<int> descriptors;  // opened and not yet closed

    // Processes.
    int spawn_error = 0;            // posix_spawn answers this instead of starting anything
    int waitpid_interruptions = 0;  // so many calls end with EINTR first
    bool waitpid_fails = false;     // ECHILD, as when SIGCHLD is ignored
};

extern Libc libc;

}  // namespace test
