#include "item/UItemOverCurrent.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "board/UPort.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "notify/UNotifier.h"

namespace dcm::usb {

namespace {

constexpr int kFirstSwitchOnMs = 30000;
constexpr int kCheckMs = 200;  // behind a switch-on
constexpr int kNextSwitchOnMs = 500;

}  // namespace

UItemOverCurrent::UItemOverCurrent(E_ITEM kind, UNotifier* notifier, std::uint8_t port, const char* devpath)
    : UItem(kind, notifier, port), m_devpath(devpath) {
    MakeOCPath(port);
    if (m_notifier)
        m_notifier->SendOverCurrent(true);
    else
        ULOG(LOG_FAILED, "notifier is null");
}

UItemOverCurrent::~UItemOverCurrent() {
    if (m_notifier)
        m_notifier->SendOverCurrent(false);
    else
        ULOG(LOG_FAILED, "notifier is null");
}

void UItemOverCurrent::MakeOCPath(std::uint8_t port) {
    char path[128];
    std::snprintf(path, sizeof path, "/usb1/1-1/1-1:1.0/1-1-port%d/overcurrent", port);
    m_oc_path = path;
    ULOG(LOG_INFO, "oc_path:%s", path);
}

int UItemOverCurrent::GetOverCurrent() {
    const int value = UString::GetInterfaceValue(UPort::GetBoardHostPath(), m_oc_path.c_str());
    if (value != m_overcurrent) {
        ULOG(LOG_INFO, "port%d step%d overcurrent:%d", m_port, m_step, value);
        m_overcurrent = value;
    }
    return value;
}

void UItemOverCurrent::RecoverySwitchOn() {
    char command[256];
    std::snprintf(command, sizeof command, "echo 1 > /sys%s%s", UPort::GetBoardHostPath(), m_oc_path.c_str());
    if (USpawn::RunCmd(command) != 0)
        ULOG(LOG_FAILED, "error in port%d powr on %s", m_port, std::strerror(errno));
}

int UItemOverCurrent::Process() {
    timespec now;
    if (!GetTime(now)) return 0;
    const int diff_ms = DiffMs(m_last_ts, now);
    switch (m_step) {
        case OC_STEP_NONE:
            m_step = OC_STEP_OFF;
            break;
        case OC_STEP_OFF:
            if (diff_ms < kFirstSwitchOnMs) return 0;
            RecoverySwitchOn();
            m_step = OC_STEP_SWITCHED_ON;
            break;
        case OC_STEP_SWITCHED_ON:
            if (diff_ms < kCheckMs) return 0;
            if (GetOverCurrent() == 0) return -1;
            m_step = OC_STEP_STILL_THERE;
            break;
        case OC_STEP_STILL_THERE:
            if (diff_ms < kNextSwitchOnMs) return 0;
            RecoverySwitchOn();
            m_step = OC_STEP_SWITCHED_ON;
            break;
    }
    m_last_ts = now;
    return 0;
}

}  // namespace dcm::usb
