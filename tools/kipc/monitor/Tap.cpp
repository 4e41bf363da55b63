#include "monitor/Tap.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kipcmon {
namespace {

constexpr int kBacklog = 8;
constexpr mode_t kMode = 0660;  // what passes is not everybody's business; the service may connect

int NewSocket() {
    return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

std::string Reason(const std::string& what, int error) {
    return what + ": " + strerrordesc_np(error);
}

bool SetPath(sockaddr_un* address, const std::string& path) {
    if (path.size() >= sizeof address->sun_path) return false;
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

Tap::Tap(std::string folder) : m_folder(std::move(folder)), m_path(m_folder + "/tap") {}

Tap::~Tap() {
    if (m_listener < 0) return;
    if (IsOurs()) unlink(m_path.c_str());
    close(m_listener);
}

bool Tap::IsOurs() const {
    struct stat file {};
    return lstat(m_path.c_str(), &file) == 0 && file.st_dev == m_device && file.st_ino == m_inode;
}

E_TAKE Tap::Take(std::string* said) {
    // Held by one monitor at a time: of two that start at once, the second finds the first one listening.
    const int folder = open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || flock(folder, LOCK_EX) != 0) {
        *said = Reason(m_folder, errno);
        if (folder >= 0) close(folder);
        return TAKE_FAILED;
    }
    const E_TAKE result = TakeAlone(said);
    close(folder);
    return result;
}

E_TAKE Tap::TakeAlone(std::string* said) {
    sockaddr_un address{};
    if (!SetPath(&address, m_path)) {
        *said = Reason(m_path, ENAMETOOLONG);
        return TAKE_FAILED;
    }
    E_TAKE result = TAKE_DONE;
    if (!RemoveIfStale(&result, said)) return result;

    m_listener = NewSocket();
    struct stat file {};
    if (m_listener < 0 || bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        chmod(m_path.c_str(), kMode) != 0 || lstat(m_path.c_str(), &file) != 0 ||
        listen(m_listener, kBacklog) != 0) {
        *said = Reason(m_path, errno);
        return TAKE_FAILED;
    }
    m_device = file.st_dev;
    m_inode = file.st_ino;
    return TAKE_DONE;
}

// True when the place is free now.
bool Tap::RemoveIfStale(E_TAKE* result, std::string* said) {
    *result = TAKE_FAILED;
    struct stat file {};
    if (lstat(m_path.c_str(), &file) != 0) {
        if (errno == ENOENT) return true;
        *said = Reason(m_path, errno);
        return false;
    }
    if (!S_ISSOCK(file.st_mode)) {
        *said = m_path + " is no socket";
        return false;
    }
    sockaddr_un address{};
    SetPath(&address, m_path);
    const int probe = NewSocket();
    const bool connects = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    close(probe);
    // EAGAIN: it listens, but has not accepted others yet.
    if (connects || error == EAGAIN) {
        *said = "another monitor listens at " + m_path;
        *result = TAKE_TAKEN;
        return false;
    }
    if (error != ECONNREFUSED || unlink(m_path.c_str()) != 0) {
        *said = Reason(m_path, error != ECONNREFUSED ? error : errno);
        return false;
    }
    *said = "took over " + m_path + " from a monitor that is gone";
    return true;
}

}  // namespace kipcmon
