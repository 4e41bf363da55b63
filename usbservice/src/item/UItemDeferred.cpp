#include "item/UItemDeferred.h"

#include "misc/ULog.h"

namespace dcm::usb {

int UItemDeferred::Process() {
    timespec now;
    if (!GetTime(now)) return 0;
    switch (m_step) {
        case STEP_NONE:
            m_last_ts = now;
            m_step = STEP_CHECK;
            ULOG(LOG_INFO, "m_last_ts:%ld:%ld", m_last_ts.tv_sec, m_last_ts.tv_nsec);
            return 0;
        case STEP_CHECK: {
            const int diff_ms = DiffMs(m_last_ts, now);
            if (diff_ms < m_wait_ms) return 0;
            ULOG(LOG_INFO, "diff_ms:%d m_last_ts:%ld:%ld cur_ts:%ld:%ld", diff_ms, m_last_ts.tv_sec,
                 m_last_ts.tv_nsec, now.tv_sec, now.tv_nsec);
            m_last_ts = now;
            m_step = STEP_FIRE;
            return 0;
        }
        case STEP_FIRE:
            break;
    }
    const int result = Fire();
    if (result != 0) return result;
    ULOG(LOG_INFO, "STEP_CHECK > E_STEP_NONE");
    m_step = STEP_NONE;
    return 0;
}

}  // namespace dcm::usb
