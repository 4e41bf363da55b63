#include "node/UNodeHidraw.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

UNodeHidraw::UNodeHidraw(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : UNode(subsystem, devpath, notifier) {}

UNodeHidraw::~UNodeHidraw() {
    NotifyHidToUsb(MSGID_HID_REMOVE);
}

void UNodeHidraw::ActionAdd(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    m_port.UpdatePort(m_devpath);
    NotifyHidToUsb(MSGID_HID_ADD);
}

void UNodeHidraw::NotifyHidToUsb(dcm::E_MSGID id) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    UMsgHidNode message{};
    message.sender = SENDER_EVENT;
    message.id = id;
    message.port = GetPort();
    ULOG(LOG_INFO, "msgID:%d port:%d", id, GetPort());
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

}  // namespace dcm::usb
