#include "item/UItemCutting.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/Device.h"

namespace dcm::usb {

namespace {

constexpr int kWaitMs = 3000;

}  // namespace

UItemCutting::UItemCutting(UNotifier* notifier, std::uint8_t port, const UMsgNode& msg)
    : UItemDeferred(ITEM_CUTTING, notifier, port, kWaitMs), m_message(DeviceOf(msg)) {
    m_message.sender = SENDER_ITEM;
    m_message.id = MSGID_USB_REMOVE;
    m_message.port = port;
}

int UItemCutting::CheckEjection() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return -1;
    }
    ULOG(LOG_INFO, "deferred ejection");
    m_notifier->Push2USB(kSourceUsb, sizeof m_message, reinterpret_cast<char*>(&m_message));
    return -1;
}

}  // namespace dcm::usb
