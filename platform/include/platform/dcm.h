// The head unit's platform object: queues and the way to other processes.
#pragma once

#include <memory>

#include "platform/frame.h"
#include "platform/kipc.h"

namespace dcm {

class DcmMessage {
public:
    static const char* const kMsgName[];  // entry 1 names the queue that frames are told about
};

// One per process. Made by whoever needs it first, on the main thread, and never destroyed by the service.
class DcmInterface {
public:
    // Positions in the table of queues.
    enum E_QUEUE : unsigned {
        QUEUE_USB = 1,     // the service's own inbox: records of its frames and of other processes
        QUEUE_SDCM = 2,    // towards SDCM; the platform forwards what is pushed here
        QUEUE_EVENT = 4,   // the event frame's; nothing is sent to it
        QUEUE_MONITOR = 5  // requests for supervision
    };

    static DcmInterface* m_pInstance;

    // Opens the way to the other processes and starts to receive from them. May throw std::bad_alloc.
    DcmInterface();
    ~DcmInterface();
    DcmInterface(const DcmInterface&) = delete;
    DcmInterface& operator=(const DcmInterface&) = delete;

    // Any thread. Never null after construction.
    std::shared_ptr<kipc::Interface>& GetKipcSP();

    // Any thread. The queue at a position, or null for a position that has none. Owned by this object.
    frame::Message* GetMessageQueue(unsigned position) const;

private:
    class Receiver;

    std::shared_ptr<kipc::Interface> m_kipc;
    std::unique_ptr<frame::Message> m_queues[6];
    std::unique_ptr<Receiver> m_receiver;
};

}  // namespace dcm
