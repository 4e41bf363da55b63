#include "item/UItemTimeout.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

namespace {

constexpr int kChTimeoutMs = 20000;
constexpr int kCarplayTimeoutMs = 2000;

}  // namespace

int UItemTimeout::Process() {
    timespec now;
    if (!GetTime(now)) return 0;
    switch (m_step) {
        case STEP_NONE:
            m_last_ts = now;
            m_step = STEP_CHECK;
            ULOG(LOG_INFO, "STEP_NONE port%d m_last_ts:%ld:%ld", m_port, m_last_ts.tv_sec, m_last_ts.tv_nsec);
            return 0;
        case STEP_CHECK: {
            const int diff_ms = DiffMs(m_last_ts, now);
            if (diff_ms < (m_kind == ITEM_CH_TIMEOUT ? kChTimeoutMs : kCarplayTimeoutMs)) return 0;
            ULOG(LOG_INFO, "STEP_CHECK port%d diff_ms:%d m_last_ts:%ld:%ld cur_ts:%ld:%ld", m_port, diff_ms,
                 m_last_ts.tv_sec, m_last_ts.tv_nsec, now.tv_sec, now.tv_nsec);
            m_last_ts = now;
            m_step = STEP_FIRE;
            return 0;
        }
        case STEP_FIRE:
            break;
    }
    NotifyTimeout();
    return -1;
}

void UItemTimeout::NotifyTimeout() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    UMsgTimeout message{};
    message.sender = SENDER_ITEM;
    message.port = static_cast<std::uint8_t>(m_port);
    switch (m_kind) {
        case ITEM_CH_TIMEOUT:
            ULOG(LOG_INFO, "CH_TIMEOUT port%d", m_port);
            message.id = MSGID_CH_TIMEOUT;
            break;
        case ITEM_CARPLAY_TIMEOUT:
            ULOG(LOG_INFO, "CARPLAY_TIMEOUT port%d", m_port);
            message.id = MSGID_CARPLAY_TIMEOUT;
            break;
        default:
            ULOG(LOG_REFUSED, "unknown item:%d", m_kind);
            return;
    }
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

}  // namespace dcm::usb
