#include "shm/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Descriptor.h"
#include "shm/Complaint.h"

namespace shm {
namespace {

constexpr mode_t kMode = 0777;  // services run as users of their own

// The segment's descriptor (close-on-exec, as shm_open makes them all), or -1 and errno.
int OpenSegment(const char* name, E_SEGMENT_OPEN open, bool* created) {
    *created = false;
    int fd = shm_open(name, O_RDWR, kMode);
    if (fd >= 0 || errno != ENOENT || open == SEGMENT_EXISTING) return fd;
    // Only a segment that is missing is opened with O_CREAT: in a sticky directory the kernel refuses O_CREAT
    // on another user's file even to root (fs.protected_regular).
    fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, kMode);
    if (fd < 0 && errno == EEXIST) return shm_open(name, O_RDWR, kMode);  // made by one without the semaphore
    *created = fd >= 0;
    return fd;
}

// Large enough, with all its pages there: a mapping's bytes behind the end, and those for which the memory
// file system has no room, are a SIGBUS for whoever touches them.
bool Grow(int fd, const char* name, const struct stat& status, std::size_t bytes) {
    if (static_cast<std::size_t>(status.st_size) < bytes && ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        ComplainOfCall(__func__, "ftruncate", name, errno);
        return false;
    }
    const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    if (error != 0) ComplainOfCall(__func__, "posix_fallocate", name, error);
    return error == 0;
}

// Readable and writable for all; of another user's segment only its owner can make it so.
void OpenToAll(int fd, const char* name, const struct stat& status) {
    if ((status.st_mode & kMode) == kMode || fchmod(fd, kMode) == 0) return;
    ComplainOfCall(__func__, "fchmod", name, errno);
}

char* MapOpened(int fd, const char* name, std::size_t bytes) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
        ComplainOfCall(__func__, "fstat", name, errno);
        return nullptr;
    }
    if (!Grow(fd, name, status, bytes)) return nullptr;
    OpenToAll(fd, name, status);
    void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        ComplainOfCall(__func__, "mmap", name, errno);
        return nullptr;
    }
    return static_cast<char*>(mapped);
}

}  // namespace

Segment::~Segment() {
    if (m_data) munmap(m_data, m_bytes);
}

E_SEGMENT_RESULT Segment::Map(const char* name, std::size_t bytes, E_SEGMENT_OPEN open) {
    bool created = false;
    const Descriptor segment(OpenSegment(name, open, &created));
    if (segment.Get() < 0) {
        if (errno == ENOENT && open == SEGMENT_EXISTING) return SEGMENT_ABSENT;
        ComplainOfCall(__func__, "shm_open", name, errno);
        return SEGMENT_FAILED;
    }
    m_data = MapOpened(segment.Get(), name, bytes);
    if (!m_data) {
        if (created) shm_unlink(name);  // an empty one would pass for a record that somebody wrote
        return SEGMENT_FAILED;
    }
    m_bytes = bytes;
    return SEGMENT_MAPPED;
}

}  // namespace shm
