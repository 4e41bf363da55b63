// One kernel device that the service cares about, known by its device path.
#pragma once

#include <cstddef>
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

protected:
    const E_SUBSYSTEM m_subsystem;
    char* m_devpath;  // owned
    std::uint32_t m_reserved = 0;
    UNode* m_parent = nullptr;  // not owned: deepest node of the list whose path is a prefix of this one's
    UPort m_port;
    UNotifier* m_notifier;  // not owned, may be null

private:
    friend class UListNode;
    friend class UPathIndex;

    // Where the list keeps the node; the list's alone, with its lock.
    struct Place {
        std::size_t position = 0;  // in the order in which the nodes came
        UNode* first_child = nullptr;
        UNode* last_child = nullptr;
        UNode* previous_sibling = nullptr;
        UNode* next_sibling = nullptr;
        UNode* next_in_bucket = nullptr;
        std::uint64_t path_hash = 0;
        std::uint64_t stem_hash = 0;
        std::size_t path_length = 0;
    };
    Place m_place;
};

}  // namespace dcm::usb
