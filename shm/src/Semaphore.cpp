#include "shm/Semaphore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <string>

#include "shm/Complaint.h"

namespace shm {
namespace {

constexpr mode_t kMode = 0777;  // services run as users of their own

// Where glibc keeps it.
std::string FileOf(const char* name) {
    return std::string("/dev/shm/sem.") + name;
}

// The umask cut the mode when the semaphore was made.
void OpenToAll(const char* name) {
    const std::string path = FileOf(name);
    if (chmod(path.c_str(), kMode) == 0 || errno == ENOENT) return;
    ComplainOfCall(__func__, "chmod", path.c_str(), errno);
}

// glibc maps whatever has the name; touching what a file is too short for would end the process.
sem_t* OpenExisting(const char* name) {
    struct stat status;
    if (stat(FileOf(name).c_str(), &status) == 0 && status.st_size < static_cast<off_t>(sizeof(sem_t))) {
        errno = EINVAL;
        return SEM_FAILED;
    }
    return sem_open(name, 0);
}

}  // namespace

Semaphore::~Semaphore() {
    if (sem_t* semaphore = m_semaphore.load()) sem_close(semaphore);
}

sem_t* Semaphore::Open() {
    sem_t* known = m_semaphore.load();
    if (known) return known;
    sem_t* opened = sem_open(m_name, O_CREAT | O_EXCL, kMode, 1);
    if (opened != SEM_FAILED) {
        OpenToAll(m_name);
    } else if (errno == EEXIST) {
        opened = OpenExisting(m_name);
    }
    if (opened == SEM_FAILED) {
        ComplainOfCall(__func__, "sem_open", m_name, errno);
        return nullptr;
    }
    if (m_semaphore.compare_exchange_strong(known, opened)) return opened;
    sem_close(opened);  // another thread was faster; it has the same semaphore
    return known;
}

bool Semaphore::Wait() {
    sem_t* semaphore = Open();
    if (!semaphore) return false;
    timespec deadline;
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) {
        Complain(__func__, "failed to get time");
        return false;
    }
    deadline.tv_sec += kWaitSeconds;
    while (sem_timedwait(semaphore, &deadline) != 0) {
        if (errno == EINTR) continue;  // the deadline stays
        ComplainOfCall(__func__, "sem_timedwait", m_name, errno);
        return false;
    }
    return true;
}

void Semaphore::Post() {
    if (sem_post(m_semaphore.load()) != 0) ComplainOfCall(__func__, "sem_post", m_name, errno);
}

}  // namespace shm
