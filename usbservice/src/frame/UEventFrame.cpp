#include "frame/UEventFrame.h"

#include <unistd.h>

#include <new>

#include "board/UPort.h"
#include "event/UDev.h"
#include "event/UNetLink.h"
#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "platform/status.h"
#include "record/FrameMessage.h"
#include "record/SdcmRecord.h"
#include "record/StatusRecord.h"

namespace dcm::usb {

namespace {

constexpr useconds_t kRetryMicroseconds = 10000;  // between attempts to open the socket
constexpr std::uint8_t kTwoPortHub = 2;

status::Number g_version(kStatusVersionName, kStatusVersion);
status::Number g_state(kStatusState, SERVICE_STARTING);

}  // namespace

UEventFrame::UEventFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message,
                         const std::vector<frame::QueueInfo>& queues)
    : frame::Frame(interface, frame::BLOCK_NEVER, message, queues, nullptr) {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
    m_notifier = new (std::nothrow) UNotifier;
    if (!m_notifier) ULOG(LOG_FAILED, "failed to new notifier instance");
    m_netlink = new (std::nothrow) UNetLink(m_notifier);
    if (!m_netlink) ULOG(LOG_FAILED, "failed to new netlink instance");
    m_dev = new (std::nothrow) UDev(m_notifier);
    if (!m_dev) ULOG(LOG_FAILED, "failed to new dev instance");
}

UEventFrame::~UEventFrame() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    delete m_netlink;  // empties the list of nodes, whose last words need the notifier
    delete m_dev;
    delete m_notifier;
}

void UEventFrame::event_handler(unsigned long, unsigned int, char*) {
    switch (m_state) {
        case STATE_INITIAL:
            Init();
            m_state = STATE_OPENING;
            return;
        case STATE_OPENING:
            if (m_netlink && m_netlink->InitNetlink() == 0) m_state = STATE_SCANNING;
            usleep(kRetryMicroseconds);
            return;
        case STATE_SCANNING:
            g_state.Set(SERVICE_SCANNING);
            // The socket is open: what is plugged in meanwhile waits there as an event.
            if (m_dev) {
                NotifyScanToUsb(MSGID_USB_SCAN_BEGIN);
                m_dev->ScanDevices();
                NotifyScanToUsb(MSGID_USB_SCAN_END);
                NotifyHubCommunication();
            }
            m_state = STATE_RUNNING;
            g_state.Set(SERVICE_RUNNING);
            return;
        case STATE_RUNNING:
            if (m_netlink) m_netlink->DriveNetLink();
            return;
    }
    ULOG(LOG_REFUSED, "unknown state:%d", m_state);
}

void UEventFrame::Init() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    m_notifier->SendExternalOpticalStatus();
    m_notifier->SendExternalOpticalErrorCode();
    m_notifier->SendOverCurrent(false);
}

void UEventFrame::NotifyScanToUsb(E_MSGID id) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    ScanRecord record{SENDER_EVENT, id, 0};
    ULOG(LOG_INFO, "msgID:%d", id);
    m_notifier->Push2USB(kSourceUsb, sizeof record, reinterpret_cast<char*>(&record));
}

void UEventFrame::NotifyHubCommunication() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (UPort::m_hub_max_port == kTwoPortHub) return;
    m_notifier->SendDiagHubSupport(false);
    m_notifier->SendStatusCommunication(true);
    m_notifier->SendFaultyCommunication(true);
}

}  // namespace dcm::usb
