#include "Wraps.h"

#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <new>

namespace test {
Outside outside;
}

using test::outside;

extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return outside.mutex_init_fails ? EAGAIN : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    return outside.mutex_destroy_fails ? EBUSY : __real_pthread_mutex_destroy(mutex);
}

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return outside.nothrow_new_fails ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

unsigned __wrap_sleep(unsigned seconds) {
    outside.slept += seconds;
    return 0;
}

// USpawn::RunCmd(const char*)
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    outside.commands.emplace_back(command);
    errno = outside.command_error;
    return outside.command_result;
}

// UMount::Mount(const char*, const char*, const char*, unsigned long)
int __wrap__ZN3dcm3usb6UMount5MountEPKcS3_S3_m(void*, const char*, const char*, const char*, unsigned long) {
    ++outside.mounted;
    return outside.mount_result;
}

// UBlkID::UpdateVolid(const char*)
void __wrap__ZN3dcm3usb6UBlkID11UpdateVolidEPKc(void*, const char*) {}

// UMount::UnMount(char*)
int __wrap__ZN3dcm3usb6UMount7UnMountEPc(void*, char*) {
    ++outside.unmounted;
    return 0;
}
}
