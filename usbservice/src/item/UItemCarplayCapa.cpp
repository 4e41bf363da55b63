#include "item/UItemCarplayCapa.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

namespace {

constexpr int kPollMs = 5000;
constexpr int kPolls = 5;

}  // namespace

int UItemCarplayCapa::Process() {
    timespec now;
    if (!GetTime(now)) return 0;
    switch (m_step) {
        case STEP_NONE:
            m_last_ts = now;
            m_step = STEP_CHECK;
            ULOG(LOG_INFO, "STEP_NONE m_last_ts:%ld:%ld", m_last_ts.tv_sec, m_last_ts.tv_nsec);
            return 0;
        case STEP_CHECK: {
            const int diff_ms = DiffMs(m_last_ts, now);
            if (diff_ms < kPollMs) return 0;
            ULOG(LOG_INFO, "STEP_CHECK diff_ms:%d m_last_ts:%ld:%ld cur_ts:%ld:%ld", diff_ms,
                 m_last_ts.tv_sec, m_last_ts.tv_nsec, now.tv_sec, now.tv_nsec);
            m_last_ts = now;
            m_step = STEP_FIRE;
            return 0;
        }
        case STEP_FIRE:
            break;
    }
    ++m_retry;
    NotifyCarplayCapa();
    if (m_retry >= kPolls) return -1;
    m_last_ts = now;
    m_step = STEP_CHECK;
    return 0;
}

void UItemCarplayCapa::NotifyCarplayCapa() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    ULOG(LOG_INFO, "port%d retry:%d", m_port, m_retry);
    UMsgCarplayCapa message{};
    message.sender = SENDER_ITEM;
    message.id = MSGID_CARPLAY_CAPA;
    message.port = static_cast<std::uint8_t>(m_port);
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

}  // namespace dcm::usb
