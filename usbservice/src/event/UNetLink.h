// The service's only source of live device events: reads uevents from the kernel's netlink socket, one at a
// time, and turns each into an operation on the list of nodes. Event frame's thread only.
#pragma once

#include <cstddef>

#include "event/UNetLinkData.h"

namespace dcm::usb {

class UListNode;
class UNotifier;

class UNetLink {
public:
    static constexpr int kNetlinkSockBufferSize = 16777216;  // forced: events that do not fit in are lost

    explicit UNetLink(UNotifier* notifier);
    virtual ~UNetLink();  // closes the socket and deletes all nodes
    UNetLink(const UNetLink&) = delete;
    UNetLink& operator=(const UNetLink&) = delete;

    // Opens the socket; 0, or -1: may be called again until it works.
    int InitNetlink();

    // Waits for one message and parses it, whoever sent it; 0 or -1. The record's texts last until the next
    // call.
    int RecvNetLinkData(UNetLinkData* data);

    // Applies one event to the list of nodes.
    void ProcessNetLinkData(UNetLinkData* data);

    // Waits for one event and applies it; 0, or -1 when nothing could be received.
    int DriveNetLink();

private:
    // The kernel's lines take at most 2048 (UEVENT_BUFFER_SIZE), and their head comes before them.
    static constexpr int kReceiveBytes = 2560;
    static constexpr int kZerosBehind = 16;  // UNetLinkData::ParseData wants them

    int CloseSocket();
    void Add(UNetLinkData* data);
    void Remove(UNetLinkData* data);
    void Change(UNetLinkData* data);

    int m_socket = -1;
    int m_max_fd = -1;  // for select: one more than the socket
    char m_buffer[kReceiveBytes + kZerosBehind] = {};
    std::size_t m_filled = 0;  // bytes of it that are perhaps not zero
    UNetLinkData m_data;       // points into m_buffer
    UListNode* m_lists;        // not owned
    UNotifier* m_notifier;     // not owned, may be null
};

}  // namespace dcm::usb
