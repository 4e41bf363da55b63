#include "UnixSocket.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kipcsend {

namespace {

constexpr timeval kPatience{2, 0};  // for a peer that does not accept, or does not read
constexpr int kBacklog = 8;
constexpr mode_t kInboxMode = 0660;  // as the service's own sockets

int MakeAddress(const std::string& path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) return ENAMETOOLONG;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return 0;
}

}  // namespace

Descriptor::~Descriptor() {
    if (m_fd >= 0) close(m_fd);
}

int ConnectTo(const std::string& path, Descriptor* socket_) {
    sockaddr_un address;
    if (const int error = MakeAddress(path, &address)) return error;
    Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!made || setsockopt(made.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience) != 0)
        return errno;
    if (connect(made.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return errno;
    *socket_ = std::move(made);
    return 0;
}

int ListenAt(const std::string& path, Descriptor* socket_) {
    sockaddr_un address;
    if (const int error = MakeAddress(path, &address)) return error;
    Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made || bind(made.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return errno;
    if (chmod(path.c_str(), kInboxMode) != 0 || listen(made.Get(), kBacklog) != 0) {
        const int error = errno;
        unlink(path.c_str());
        return error;
    }
    *socket_ = std::move(made);
    return 0;
}

std::string OwnershipOf(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return strerrordesc_np(errno);
    std::string text = S_ISSOCK(status.st_mode) ? "s" : S_ISDIR(status.st_mode) ? "d" : "-";
    for (int bit = 8; bit >= 0; --bit)
        text += status.st_mode >> bit & 1 ? "xwr"[bit % 3] : '-';
    const passwd* owner = getpwuid(status.st_uid);
    const group* owners = getgrgid(status.st_gid);
    text += ' ' + (owner ? std::string(owner->pw_name) : std::to_string(status.st_uid));
    text += ' ' + (owners ? std::string(owners->gr_name) : std::to_string(status.st_gid));
    return text;
}

}  // namespace kipcsend
