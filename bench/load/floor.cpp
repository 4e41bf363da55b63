// The least that a reader of uevents costs that waits for each message in select and takes it into a cleared
// buffer: the service's reader without its work.
//
//   bench_floor [threads]      threads: beside a thread that sleeps, for which kernel and C library take more
//   care
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <thread>

namespace {

// As the service has them.
constexpr int kSocketBytes = 16777216;
constexpr std::size_t kReceiveBytes = 2560;
constexpr unsigned kKernelEvents = 1;

char g_buffer[kReceiveBytes];

int Open() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) return -1;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBytes, sizeof kSocketBytes) != 0) return -1;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<unsigned>(getpid());
    address.nl_groups = kKernelEvents;
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? fd : -1;
}

}  // namespace

int main(int count, char**) {
    if (count > 1) {
        std::thread([] {
            for (;;)
                pause();
        }).detach();
    }
    const int fd = Open();
    if (fd < 0) {
        std::perror("uevent socket");
        return 1;
    }
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        if (select(fd + 1, &readable, nullptr, nullptr, nullptr) < 0) continue;
        std::memset(g_buffer, 0, sizeof g_buffer);
        if (recv(fd, g_buffer, sizeof g_buffer, 0) < 0) std::perror("recv");
    }
}
