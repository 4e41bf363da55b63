// Mutexes that cannot be made or destroyed. For test programs that wrap pthread_mutex_init
// and pthread_mutex_destroy.
#pragma once

#include <pthread.h>

#include <cerrno>

namespace test {

inline bool fail_mutex_init = false;
inline bool fail_mutex_destroy = false;

}  // namespace test

extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);

// The mutex is usable all the same: what holds it must not fall over when the test goes on.
[[gnu::used]] inline int __wrap_pthread_mutex_init(pthread_mutex_t* mutex,
                                                   const pthread_mutexattr_t* attributes) {
    const int result = __real_pthread_mutex_init(mutex, attributes);
    return test::fail_mutex_init ? ENOMEM : result;
}

[[gnu::used]] inline int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_destroy(mutex);
    return test::fail_mutex_destroy ? EBUSY : result;
}
}
