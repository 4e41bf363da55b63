#include "frame/UBegin.h"

#include <new>
#include <vector>

#include "frame/UEventFrame.h"
#include "frame/UFrame.h"
#include "frame/UMonitorFrame.h"
#include "misc/ULog.h"
#include "platform/dcm.h"

namespace dcm {

namespace {

// Deliberate: the two lines of the start have numbers of their own in the trace table.
constexpr int kStartModule = 3584;
constexpr int kStartSubmodule = 1792;

template <typename Frame>
void EndFrame(Frame*& frame) {
    if (!frame) return;
    frame->join();
    delete frame;
    frame = nullptr;
}

}  // namespace

UBegin::UBegin() {
    ka_log_print(__FILE__, __func__, __LINE__, usb::LOG_INFO, kStartModule, kStartSubmodule,
                 "usbservice start");
    if (!DcmInterface::m_pInstance) DcmInterface::m_pInstance = new DcmInterface;
    DcmInterface* const platform = DcmInterface::m_pInstance;
    std::shared_ptr<kipc::Interface>& interface = platform->GetKipcSP();
    const frame::QueueInfo sdcm(DcmMessage::kMsgName[1], platform->GetMessageQueue(DcmInterface::QUEUE_SDCM));

    // The command frame comes first: it makes the singletons that the others use.
    std::vector<frame::QueueInfo> queues{sdcm};
    m_frame =
        new (std::nothrow) usb::UFrame(interface, platform->GetMessageQueue(DcmInterface::QUEUE_USB), queues);
    if (m_frame)
        m_frame->run();
    else
        ULOG(usb::LOG_FAILED, "failed to new uframe instance");

    queues.clear();
    queues.push_back(sdcm);
    m_event_frame = new (std::nothrow)
        usb::UEventFrame(interface, platform->GetMessageQueue(DcmInterface::QUEUE_EVENT), queues);
    if (m_event_frame)
        m_event_frame->run();
    else
        ULOG(usb::LOG_FAILED, "failed to new ueventframe instance");

    m_monitor_frame = new (std::nothrow)
        usb::UMonitorFrame(interface, platform->GetMessageQueue(DcmInterface::QUEUE_MONITOR));
    if (m_monitor_frame)
        m_monitor_frame->run();
    else
        ULOG(usb::LOG_FAILED, "failed to new umonitorframe instance");

    ka_log_print(__FILE__, __func__, __LINE__, usb::LOG_INFO, kStartModule, kStartSubmodule,
                 "usbservice ready");
}

UBegin::~UBegin() {
    EndFrame(m_monitor_frame);
    EndFrame(m_event_frame);
    EndFrame(m_frame);
}

}  // namespace dcm
