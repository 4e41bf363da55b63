// A named semaphore that keeps processes apart: one for each segment, of the same name. Any thread.
#pragma once

#include <semaphore.h>

#include <atomic>

namespace shm {

inline constexpr int kWaitSeconds = 15;  // for a holder that died holding it: then the access fails

class Semaphore {
public:
    explicit Semaphore(const char* name) : m_name(name) {}  // the name is not copied
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Takes it, waiting at most kWaitSeconds. False, and a line on standard error, when it was not taken.
    bool Wait();
    void Post();

private:
    sem_t* Open();

    const char* m_name;
    std::atomic<sem_t*> m_semaphore{nullptr};  // opened by the first Wait that can
};

// The semaphore, held until the end of the block, when it was to be had.
class Hold {
public:
    explicit Hold(Semaphore& semaphore) : m_semaphore(semaphore), m_held(semaphore.Wait()) {}
    ~Hold() {
        if (m_held) m_semaphore.Post();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    bool Held() const { return m_held; }

private:
    Semaphore& m_semaphore;
    const bool m_held;
};

}  // namespace shm
