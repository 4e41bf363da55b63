// The whole road of an event that makes no node, without the kernel's own work:
//   perf_event add|change|remove
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "../Paths.h"
#include "Measured.h"
#include "event/UNetLink.h"
#include "node/UListNode.h"
#include "platform/trace.h"

namespace {

using namespace dcm::usb;

constexpr int kLogThreshold = 160;
constexpr std::size_t kNodes = 30;  // of a car with two phones and a stick

std::string message;
UNetLink* reader;

void Drive(long) {
    if (reader->DriveNetLink() != 0) std::abort();
}

}  // namespace

// The kernel, which always has a message.
extern "C" {

int __wrap_socket(int, int, int) {
    return 7;
}
int __wrap_setsockopt(int, int, int, const void*, socklen_t) {
    return 0;
}
int __wrap_bind(int, const sockaddr*, socklen_t) {
    return 0;
}
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*) {
    return 1;
}
ssize_t __wrap_recv(int, void* buffer, std::size_t, int) {
    std::memcpy(buffer, message.data(), message.size());
    return static_cast<ssize_t>(message.size());
}
int __wrap_close(int) {
    return 0;
}
}

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    ka_log_threshold = kLogThreshold;
    for (const std::string& path : bench::Tree(kNodes))
        UListNode::GetInstance()->InsertNode(SUBSYSTEM_USB, path.c_str(), nullptr);
    message = bench::ForeignUevent(arguments[1]);
    char somebody = 0;
    UNetLink events(
        reinterpret_cast<UNotifier*>(&somebody));  // handed to nodes only, of which there come none
    if (events.InitNetlink() != 0) return EXIT_FAILURE;
    reader = &events;
    bench::WarmUpAndMeasure(Drive);
    return UListNode::GetInstance()->GetSize() == kNodes ? EXIT_SUCCESS : EXIT_FAILURE;
}
