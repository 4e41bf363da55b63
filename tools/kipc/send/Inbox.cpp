#include "Inbox.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kipcsend {

namespace {

constexpr std::size_t kMostRecordBytes = 64 * 1024;  // the service sends none longer
constexpr std::size_t kMostConnections = 16;         // the service needs one
constexpr mode_t kFolderMode = 0755;

}  // namespace

Inbox::Inbox(const std::string& root, const std::string& peer)
    : m_folder(root + "/" + peer), m_path(m_folder + "/usb"), m_peer(peer) {}

Inbox::~Inbox() {
    struct stat status;
    // The peer may have come meanwhile and put its own socket there.
    if (m_made_socket && lstat(m_path.c_str(), &status) == 0 && status.st_ino == m_inode)
        unlink(m_path.c_str());
    if (m_made_folder) rmdir(m_folder.c_str());
}

Inbox::E_STATE Inbox::Deny(const std::string& problem) {
    m_problem = problem;
    return DENIED;
}

int Inbox::MakeFolder() {
    m_made_folder = mkdir(m_folder.c_str(), kFolderMode) == 0;
    return m_made_folder || errno == EEXIST ? 0 : errno;
}

Inbox::E_STATE Inbox::Open() {
    if (const int error = MakeFolder())
        return Deny("no inbox " + m_folder + ": " + strerrordesc_np(error) +
                    " (the folder above it: " + OwnershipOf(m_folder.substr(0, m_folder.rfind('/'))) + ")");
    // Two of us at once: the second one waits here, and then finds the first one's socket.
    const Descriptor lock(open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || flock(lock.Get(), LOCK_EX) != 0) {
        const int error = errno;
        return Deny("the inbox " + m_folder + " cannot be used: " + strerrordesc_np(error) + " (" +
                    OwnershipOf(m_folder) + ")");
    }
    Descriptor probe;
    const int error = ConnectTo(m_path, &probe);
    switch (error) {
        case 0:
        case EAGAIN:      // its backlog is full: it is there
        case EPROTOTYPE:  // something else listens there
            return THEIRS;
        case ENOENT:
        case ECONNREFUSED:
            return TakeOver();
        case EACCES:
        case EPERM:
            return Deny("no permission to see who listens at " + m_path + " (" + OwnershipOf(m_path) + ")");
    }
    return Deny("nothing can be received at " + m_path + ": " + strerrordesc_np(error));
}

Inbox::E_STATE Inbox::TakeOver() {
    struct stat status;
    if (lstat(m_path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) return Deny(m_path + " is no socket");
        if (unlink(m_path.c_str()) != 0) {
            const int error = errno;
            return Deny("the socket " + m_path + " of a peer that is gone cannot be replaced: " +
                        strerrordesc_np(error) + " (" + OwnershipOf(m_folder) + ")");
        }
    }
    if (const int error = ListenAt(m_path, &m_listener))
        return Deny("nothing can be received at " + m_path + ": " + strerrordesc_np(error) + " (" +
                    OwnershipOf(m_folder) + ")");
    m_made_socket = lstat(m_path.c_str(), &status) == 0;
    m_inode = status.st_ino;
    return OURS;
}

void Inbox::AddTo(std::vector<pollfd>* waits) const {
    waits->push_back({m_listener.Get(), POLLIN, 0});
    for (const Descriptor& connection : m_connections)
        waits->push_back({connection.Get(), POLLIN, 0});
}

void Inbox::Accept() {
    for (;;) {
        Descriptor connection(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection) return;
        if (m_connections.size() < kMostConnections) m_connections.push_back(std::move(connection));
    }
}

std::optional<std::vector<unsigned char>> Inbox::Receive() {
    Accept();
    std::vector<unsigned char> bytes(kMostRecordBytes);
    for (auto one = m_connections.begin(); one != m_connections.end();) {
        const ssize_t length = recv(one->Get(), bytes.data(), bytes.size(), 0);
        if (length > 0) {
            bytes.resize(static_cast<std::size_t>(length));
            return bytes;
        }
        const bool is_over = length == 0 || (errno != EAGAIN && errno != EINTR);
        one = is_over ? m_connections.erase(one) : one + 1;
    }
    return std::nullopt;
}

}  // namespace kipcsend
