// Tells the kernel of uevents as fast as it takes them: it numbers each and broadcasts it in this network
// namespace, as its own are. Needs root there.
//
//   bench_inject COUNT < messages      messages: 4 bytes of length in the machine's order, then the text;
//   sent in turn
//
// Prints nanoseconds taken.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBatch = 64;  // messages per system call

std::string ReadAll(std::FILE* file) {
    std::string all;
    char part[65536];
    while (const std::size_t count = std::fread(part, 1, sizeof part, file))
        all.append(part, count);
    return all;
}

// Each with the head that a netlink message has.
std::vector<std::string> ReadMessages() {
    const std::string all = ReadAll(stdin);
    std::vector<std::string> messages;
    for (std::size_t at = 0; at < all.size();) {
        std::uint32_t length = 0;
        if (all.size() - at < sizeof length) return {};
        std::memcpy(&length, all.data() + at, sizeof length);
        at += sizeof length;
        if (all.size() - at < length) return {};
        nlmsghdr head = {};
        head.nlmsg_len = static_cast<std::uint32_t>(sizeof head + length);
        head.nlmsg_type = NLMSG_MIN_TYPE;
        head.nlmsg_flags = NLM_F_REQUEST;  // no answer unless it is refused
        messages.push_back(
            std::string(reinterpret_cast<const char*>(&head), sizeof head).append(all, at, length));
        at += length;
    }
    return messages;
}

std::int64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

bool Send(int fd, std::vector<std::string>& messages, std::size_t count) {
    std::vector<iovec> pieces(messages.size());
    for (std::size_t i = 0; i < messages.size(); ++i)
        pieces[i] = {messages[i].data(), messages[i].size()};
    mmsghdr batch[kBatch] = {};
    for (std::size_t sent = 0; sent < count;) {
        const std::size_t wanted = std::min(kBatch, count - sent);
        for (std::size_t i = 0; i < wanted; ++i) {
            batch[i].msg_hdr.msg_iov = &pieces[(sent + i) % pieces.size()];
            batch[i].msg_hdr.msg_iovlen = 1;
        }
        const int done = sendmmsg(fd, batch, static_cast<unsigned>(wanted), 0);
        if (done < 0 && errno != EINTR) return false;
        if (done > 0) sent += static_cast<std::size_t>(done);
    }
    return true;
}

}  // namespace

int main(int count, char** arguments) {
    const long wanted = count == 2 ? std::atol(arguments[1]) : 0;
    std::vector<std::string> messages = ReadMessages();
    if (wanted <= 0 || messages.empty()) {
        std::fprintf(stderr, "usage: bench_inject COUNT < messages\n");
        return 2;
    }
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) != 0) {
        std::perror("uevent socket");
        return 1;
    }
    const std::int64_t begin = Now();
    if (!Send(fd, messages, static_cast<std::size_t>(wanted))) {
        std::perror("send");
        return 1;
    }
    const std::int64_t end = Now();
    char answer[256];
    if (recv(fd, answer, sizeof answer, MSG_DONTWAIT) >= 0) {
        std::fprintf(stderr, "the kernel refused a uevent: may we tell it of one here?\n");
        return 1;
    }
    std::printf("%lld\n", static_cast<long long>(end - begin));
}
