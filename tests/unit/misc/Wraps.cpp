#include "Wraps.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace test {
Libc libc;
}

using test::libc;

extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* memory);
int __real_open(const char* path, int flags, ...);
int __real_close(int file);
int __real_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const arguments[],
                       char* const environment[]);
pid_t __real_waitpid(pid_t child, int* status, int options);

void* __wrap_malloc(std::size_t size) {
    if (!libc.counted) return __real_malloc(size);
    if (libc.copies_until_failure >= 0 && libc.copies_until_failure-- == 0) return nullptr;
    void* memory = __real_malloc(size);
    std::memset(memory, 0xA5, size);  // as used memory is
    libc.counted = false;             // the book itself needs no entry
    libc.held[memory] = size;
    libc.counted = true;
    return memory;
}

void __wrap_free(void* memory) {
    if (libc.counted) {
        libc.counted = false;
        libc.held.erase(memory);
        libc.counted = true;
    }
    __real_free(memory);
}

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    libc.open_flags = flags;
    const int file = __real_open(path, flags, mode);
    if (file >= 0) libc.descriptors.insert(file);
    return file;
}

int __wrap_close(int file) {
    libc.descriptors.erase(file);
    return __real_close(file);
}

int __wrap_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const arguments[],
                       char* const environment[]) {
    if (libc.spawn_error != 0) return libc.spawn_error;
    return __real_posix_spawn(child, path, actions, attributes, arguments, environment);
}

pid_t __wrap_waitpid(pid_t child, int* status, int options) {
    if (libc.waitpid_interruptions > 0) {
        --libc.waitpid_interruptions;
        errno = EINTR;
        return -1;
    }
    const pid_t ended = __real_waitpid(child, status, options);
    if (!libc.waitpid_fails) return ended;
    errno = ECHILD;
    return -1;
}
}
