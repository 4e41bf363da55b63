#include "node/UNodeTty.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

UNodeTty::UNodeTty(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : UNode(subsystem, devpath, notifier) {}

UNodeTty::~UNodeTty() {
    NotifyTtyToUsb(MSGID_TTY_REMOVE);
}

void UNodeTty::ActionAdd(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    event->PrintData(false);
    NotifyTtyToUsb(MSGID_TTY_ADD);
}

void UNodeTty::ActionChange(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    event->PrintData(false);
    NotifyTtyToUsb(MSGID_TTY_CHANGE);
}

void UNodeTty::NotifyTtyToUsb(dcm::E_MSGID id) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    UMsgTtyNode message{};
    message.sender = SENDER_EVENT;
    message.id = id;
    message.port = 0;  // a serial function is tied to no port
    ULOG(LOG_INFO, "msgID:%d", id);
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

}  // namespace dcm::usb
