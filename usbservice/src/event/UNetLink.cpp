#include "event/UNetLink.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "misc/ULog.h"
#include "node/UListNode.h"
#include "platform/status.h"
#include "record/StatusRecord.h"

namespace dcm::usb {
namespace {

constexpr unsigned kKernelEvents = 1;  // multicast group of the kernel; 2 is udev's

status::Number g_uevents(kStatusUevents);

}  // namespace

UNetLink::UNetLink(UNotifier* notifier)
    : m_lists(USingleton<UListNode>::GetInstance()), m_notifier(notifier) {}

UNetLink::~UNetLink() {
    // Deliberate: descriptor 0 stays open.
    if (m_socket > 0) close(m_socket);
    if (m_lists) m_lists->RemoveAllNodes();
}

int UNetLink::InitNetlink() {
    m_socket = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (m_socket < 0) {
        m_socket = -1;
        ULOG(LOG_FAILED, "not create uevent socket");
        return -1;
    }
    const int size = kNetlinkSockBufferSize;
    if (setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0) {
        ULOG(LOG_FAILED, "not set socket opt");
        return CloseSocket();
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<unsigned>(getpid());
    address.nl_groups = kKernelEvents;
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        ULOG(LOG_FAILED, "failed to bind socket");
        return CloseSocket();
    }
    m_max_fd = m_socket + 1;
    ULOG(LOG_INFO, "fd(%d) max_fd(%d)", m_socket, m_max_fd);
    return 0;
}

int UNetLink::CloseSocket() {
    close(m_socket);
    m_socket = -1;
    return -1;
}

int UNetLink::RecvNetLinkData(UNetLinkData* data) {
    if (!data) {
        ULOG(LOG_FAILED, "netlink_data is null");
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    // A descriptor that a set cannot hold is none that select could report.
    const bool selectable = m_socket >= 0 && m_socket < FD_SETSIZE;
    if (selectable) FD_SET(m_socket, &readable);
    if (select(selectable ? m_max_fd : -1, &readable, nullptr, nullptr, nullptr) < 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "error in select %s", std::strerror(error));
        return -1;
    }
    if (!selectable || !FD_ISSET(m_socket, &readable)) {
        ULOG(LOG_FAILED, "set another fd");
        return -1;
    }
    std::memset(m_buffer, 0, m_filled);  // the rest is still zero
    m_filled = kReceiveBytes;
    const ssize_t length = recv(m_socket, m_buffer, kReceiveBytes, 0);
    if (length < 0) {
        ULOG(LOG_FAILED, "fail to read sock msg");
        return -1;
    }
    m_filled = static_cast<std::size_t>(length);
    data->ParseData(m_buffer, static_cast<int>(length));
    return 0;
}

void UNetLink::ProcessNetLinkData(UNetLinkData* data) {
    if (!data || !m_lists || !m_notifier) {
        ULOG(LOG_FAILED, "netlink_data(%p) or lists(%p) or notifier(%p) is null", static_cast<void*>(data),
             static_cast<void*>(m_lists), static_cast<void*>(m_notifier));
        return;
    }
    switch (data->GetAction()) {
        case ACTION_ADD:
            return Add(data);
        case ACTION_REMOVE:
            return Remove(data);
        case ACTION_CHANGE:
            return Change(data);
        case ACTION_NONE:
        case ACTION_ONLINE:
            return;
    }
}

void UNetLink::Add(UNetLinkData* data) {
    UNode* node = m_lists->InsertNode(data->GetSubSystem(), data->GetDevPath(), m_notifier);
    if (!node) return;
    // Deliberate: also for a node that was in the list already, whose add then runs again.
    data->PrintData(true);
    node->ActionAdd(data);
}

void UNetLink::Remove(UNetLinkData* data) {
    if (m_lists->FindNode(data->GetDevPath())) data->PrintData(true);
    m_lists->RemoveNode(data->GetDevPath());
}

void UNetLink::Change(UNetLinkData* data) {
    if (UNode* node = m_lists->FindNode(data->GetDevPath())) {
        data->PrintData(true);
        node->ActionChange(data);
        return;
    }
    // A serial port may say "change" before anybody heard of it.
    if (data->GetSubSystem() == SUBSYSTEM_TTY) Add(data);
}

int UNetLink::DriveNetLink() {
    const int result = RecvNetLinkData(&m_data);
    if (result != 0) return result;
    ProcessNetLinkData(&m_data);
    g_uevents.Add();
    return 0;
}

}  // namespace dcm::usb
