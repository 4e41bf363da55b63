// One watched condition of one port: a small state machine that the monitor frame steps about ten times a
// second.
#pragma once

#include <ctime>

#include <cstdint>

namespace dcm::usb {

class UNotifier;

enum E_ITEM : std::uint32_t {
    ITEM_MOUNT_ERROR = 1,
    ITEM_OVER_CURRENT = 2,
    ITEM_VOLTAGE_SUPPLY = 3,
    ITEM_CUTTING = 4,  // a removal that is told only when the device stays away
    ITEM_CH_TIMEOUT = 5,
    ITEM_CARPLAY_TIMEOUT = 6,
    ITEM_CARPLAY_CAPA = 7
};

// The steps of an item that waits, then fires.
enum E_STEP : std::uint32_t { STEP_NONE = 0, STEP_CHECK = 1, STEP_FIRE = 2 };

// Owned by the list of items. Made, processed and deleted under the list's lock: constructors, destructors
// and Process call nothing of the list. A wait is seen to be over in the first pass behind its end.
class UItem {
public:
    UItem(E_ITEM kind, UNotifier* notifier, std::uint8_t port)
        : m_kind(kind), m_port(port), m_notifier(notifier) {}
    virtual ~UItem() = default;
    UItem(const UItem&) = delete;
    UItem& operator=(const UItem&) = delete;

    // One pass. 0: the item stays; anything else ends it.
    virtual int Process() = 0;

    E_ITEM GetKind() const { return m_kind; }
    std::uint32_t GetPort() const { return m_port; }  // full port number

    // Whole milliseconds from one time to another.
    static int DiffMs(timespec from, timespec to);

protected:
    // The time that all items go by. False when there is none; it is logged then.
    static bool GetTime(timespec& now);

    const E_ITEM m_kind;
    const std::uint32_t m_port;
    UNotifier* const m_notifier;  // not owned, may be null
};

}  // namespace dcm::usb
