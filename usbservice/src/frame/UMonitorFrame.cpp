#include "frame/UMonitorFrame.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

namespace {

constexpr useconds_t kPeriodMicroseconds = 100000;

}  // namespace

UMonitorFrame::UMonitorFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message)
    : frame::Frame(interface, frame::BLOCK_NEVER, message, nullptr) {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
}

UMonitorFrame::~UMonitorFrame() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    delete m_notifier;
}

void UMonitorFrame::Init() {
    m_notifier = new (std::nothrow) UNotifier;
    if (!m_notifier) ULOG(LOG_FAILED, "failed to new notifier instance");
}

void UMonitorFrame::event_handler(unsigned long src, unsigned int len, char* buf) {
    const bool isRequest = len != 0 && src == kSourceUsb;
    switch (m_state) {
        case E_STATE_INIT:
            Init();
            if (isRequest) {
                ULOG(LOG_INFO, "ParseMsg in E_STATE_INIT ");  // Deliberate: the trailing blank.
                ParseMsg(len, buf);
            }
            m_state = E_STATE_RUNNING;
            break;
        case E_STATE_RUNNING:
            if (isRequest) ParseMsg(len, buf);
            break;
        default:
            ULOG(LOG_REFUSED, "unknown state:%d", m_state);
    }
    usleep(kPeriodMicroseconds);
}

void UMonitorFrame::ParseMsg(unsigned int len, char* msg) {
    if (len == 0 || !msg) {
        const void* const list = nullptr;  // there is no list of items yet
        ULOG(LOG_FAILED, "error len(%d) or str(%p) or m_list_item(%p)", len, static_cast<void*>(msg), list);
        return;
    }
    UMsgHeader request{};
    std::memcpy(&request, msg, std::min<std::size_t>(len, sizeof request));
    // Supervision is not there yet: every request (ids 31 to 44) is refused here like any other message.
    ULOG(LOG_REFUSED, "unknown msgID:%d", request.id);
}

}  // namespace dcm::usb
