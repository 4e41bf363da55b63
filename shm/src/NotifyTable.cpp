#include "shm/NotifyTable.h"

namespace shm {

NotifyTable::NotifyTable() : Memory<NotifyMask>("NotifyTable", kNotifyMasks) {}

int NotifyTable::Write(ssmID::e_SsmID id, NotifyMask receivers) {
    if (id >= kNotifyMasks) return -1;
    Access access(*this);
    if (!access.Granted() || access.Map(SEGMENT_CREATE) != SEGMENT_MAPPED) return -1;
    access.Data()[id] |= receivers;
    return 0;
}

int NotifyTable::Read(ssmID::e_SsmID id, NotifyMask* receivers) {
    if (id >= kNotifyMasks) return -1;
    Access access(*this);
    if (!access.Granted()) return -1;
    switch (access.Map(SEGMENT_EXISTING)) {
        case SEGMENT_FAILED:
            return -1;
        case SEGMENT_ABSENT:
            *receivers = 0;
            return 0;
        case SEGMENT_MAPPED:
            break;
    }
    *receivers = access.Data()[id];
    return 0;
}

}  // namespace shm
