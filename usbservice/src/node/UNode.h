// One kernel device that the service cares about, known by its device path.
#pragma once

#include <cstdint>

#include "board/UPort.h"
#include "misc/Relaxed.h"
#include "node/UEventData.h"

namespace dcm::usb {

class UNotifier;

// Base of all nodes; owned by UListNode. Made, changed and deleted on the event frame's thread; deleted with
// the list's lock held, so a destructor calls nothing of the list. What other threads read of it through the
// list's finders are single numbers (relaxed atomics), and texts that are replaced and copied under the
// list's lock.
class UNode {
public:
    UNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
    virtual ~UNode();
    UNode(const UNode&) = delete;
    UNode& operator=(const UNode&) = delete;

    virtual void ActionAdd(UEventData* event);
    virtual void ActionChange(UEventData* event);

    E_SUBSYSTEM GetSubSystem() const { return m_subsystem; }
    const char* GetDevPath() const { return m_devpath; }  // null only when memory ran out; constant for life
    std::uint8_t GetPort() const { return m_port.GetPort(); }
    UNode* GetParent() const { return m_parent; }  // with the list's lock, or on the event frame's thread
    void SetParent(UNode* parent) { m_parent = parent; }  // likewise

protected:
    const E_SUBSYSTEM m_subsystem;
    char* m_devpath;  // owned
    std::uint32_t m_reserved = 0;
    UNode* m_parent = nullptr;  // not owned: deepest node of the list whose path is a prefix of this one's
    UPort m_port;
    UNotifier* m_notifier;  // not owned, may be null
};

}  // namespace dcm::usb
