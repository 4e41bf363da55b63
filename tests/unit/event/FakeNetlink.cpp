#include "FakeNetlink.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace test {

FakeNetlink netlink;

namespace {

int Failed(int error) {
    errno = error;
    return -1;
}

std::string Text(const char* name, std::initializer_list<long> numbers) {
    std::string text = name;
    for (const long number : numbers)
        text += " " + std::to_string(number);
    return text;
}

}  // namespace
}  // namespace test

using test::Failed;
using test::netlink;
using test::Text;

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int file, int level, int option, const void* value, socklen_t size);
int __real_bind(int file, const sockaddr* address, socklen_t size);
int __real_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
ssize_t __real_recv(int file, void* buffer, std::size_t size, int flags);
int __real_close(int file);

int __wrap_socket(int domain, int type, int protocol) {
    if (!netlink.active) return __real_socket(domain, type, protocol);
    netlink.calls.push_back(Text("socket", {domain, type, protocol}));
    return netlink.socket_error ? Failed(netlink.socket_error) : netlink.descriptor;
}

int __wrap_setsockopt(int file, int level, int option, const void* value, socklen_t size) {
    if (!netlink.active) return __real_setsockopt(file, level, option, value, size);
    int number = 0;
    std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
    netlink.calls.push_back(Text("setsockopt", {file, level, option, number, size}));
    return netlink.setsockopt_error ? Failed(netlink.setsockopt_error) : 0;
}

int __wrap_bind(int file, const sockaddr* address, socklen_t size) {
    if (!netlink.active) return __real_bind(file, address, size);
    sockaddr_nl given = {};
    std::memcpy(&given, address, std::min<std::size_t>(size, sizeof given));
    netlink.calls.push_back(
        Text("bind", {file, given.nl_family, given.nl_pad, given.nl_pid, given.nl_groups, size}));
    return netlink.bind_error ? Failed(netlink.bind_error) : 0;
}

int __wrap_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    if (!netlink.active) return __real_select(files, readable, writable, exceptional, timeout);
    std::string call = Text("select", {files});
    for (int file = 0; file < files; ++file)
        if (FD_ISSET(file, readable)) call += " waits for " + std::to_string(file);
    if (writable || exceptional || timeout) call += " and something else";
    netlink.calls.push_back(call);
    if (files < 0) return Failed(EINVAL);
    if (netlink.select_error) return Failed(netlink.select_error);
    if (!netlink.select_marks_nothing) return 1;
    FD_ZERO(readable);
    return 0;
}

ssize_t __wrap_recv(int file, void* buffer, std::size_t size, int flags) {
    if (!netlink.active) return __real_recv(file, buffer, size, flags);
    netlink.calls.push_back(Text("recv", {file, static_cast<long>(size), flags}));
    const char* begin = static_cast<const char*>(buffer);
    netlink.buffer_was_zero = std::all_of(begin, begin + size, [](char byte) { return byte == 0; });
    if (netlink.recv_error) {
        std::memset(buffer, 'x', size);
        return Failed(netlink.recv_error);
    }
    if (netlink.messages.empty()) return Failed(EAGAIN);
    const std::string message = netlink.messages.front();
    netlink.messages.pop_front();
    const std::size_t length = std::min(size, message.size());  // the rest of a datagram is lost
    std::memcpy(buffer, message.data(), length);
    return static_cast<ssize_t>(length);
}

int __wrap_close(int file) {
    if (!netlink.active) return __real_close(file);
    netlink.calls.push_back(Text("close", {file}));
    return 0;
}
}
