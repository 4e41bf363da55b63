#include "node/UListNode.h"

#include <cstdio>
#include <new>

#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "node/UNodeBlock.h"
#include "node/UNodeHidraw.h"
#include "node/UNodeNet.h"
#include "node/UNodeTty.h"
#include "node/UNodeUsb.h"
#include "platform/status.h"
#include "record/StatusRecord.h"

namespace dcm::usb {

namespace {

constexpr std::size_t kGapsLeft = 64;  // places of removed nodes that are not worth closing

status::Number g_nodes(kStatusNodes);

UNodeUsb* AsUsb(UNode* node, int devtype) {
    if (node->GetSubSystem() != SUBSYSTEM_USB) return nullptr;
    auto* usb = static_cast<UNodeUsb*>(node);
    return usb->GetUsbDevType() == devtype ? usb : nullptr;
}

bool IsUsbDeviceOn(UNode* node, std::uint8_t port, E_DEV_TYPE type) {
    if (node->GetPort() % 10 != port) return false;
    const UNodeUsb* usb = AsUsb(node, USB_DEVTYPE_DEVICE);
    if (!usb) return false;
    const E_DEV_TYPE has = usb->GetDevType();
    return type == DEV_TYPE_ANY ? has != DEV_TYPE_HUB : has == type;
}

}  // namespace

UListNode::UListNode() {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UListNode::~UListNode() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    RemoveAllNodes();
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

UNode* UListNode::MakeNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier) {
    // Of an empty path there is no copy: such a node could never be found again, nor removed.
    if (!devpath || !*devpath) {
        ULOG(LOG_FAILED, "devpath is null");
        return nullptr;
    }
    UNode* node = nullptr;
    switch (subsystem) {
        case SUBSYSTEM_USB:
            node = new (std::nothrow) UNodeUsb(subsystem, devpath, notifier);
            if (!node) ULOG(LOG_FAILED, "failed new nodeusb instance");
            return node;
        case SUBSYSTEM_BLOCK:
            node = new (std::nothrow) UNodeBlock(subsystem, devpath, notifier);
            if (!node) ULOG(LOG_FAILED, "failed to new nodeblock instance");
            return node;
        case SUBSYSTEM_HID:
            node = new (std::nothrow) UNodeHidraw(subsystem, devpath, notifier);
            if (!node) ULOG(LOG_FAILED, "failed to new nodehidraw instance");
            return node;
        case SUBSYSTEM_TTY:
            node = new (std::nothrow) UNodeTty(subsystem, devpath, notifier);
            if (!node) ULOG(LOG_FAILED, "failed to new nodetty instance");
            return node;
        case SUBSYSTEM_NET:
            node = new (std::nothrow) UNodeNet(subsystem, devpath, notifier);
            if (!node) ULOG(LOG_FAILED, "failed to new nodenet instance");
            return node;
        default:
            return nullptr;  // most devices of the machine: no log
    }
}

UNode* UListNode::InsertNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier) {
    if (!devpath) {
        ULOG(LOG_FAILED, "devpath is null");
        return nullptr;
    }
    const UPathIndex::Key key(devpath);
    Lock();
    if (UNode* known = m_index.Find(key)) {
        Unlock();
        ULOG(LOG_REFUSED, "already exists");
        return known;
    }
    UNode* node = MakeNode(subsystem, devpath, notifier);
    if (!node) {
        Unlock();
        return nullptr;
    }
    Append(node, key);
    UNode* parent = node->m_parent;
    const std::size_t size = m_size;
    Unlock();
    ULOG(LOG_INFO, "[%p]->p[%p], size[%d]", static_cast<void*>(node), static_cast<void*>(parent),
         static_cast<int>(size));
    return node;
}

inline void UListNode::Append(UNode* node, const UPathIndex::Key& key) {
    node->m_place.position = m_lists.size();
    m_lists.push_back(node);
    g_nodes.Set(++m_size);
    if (!node->m_devpath) return;  // memory ran out: nobody can name this node

    UNode* parent = m_index.Insert(node, key);
    node->m_parent = parent;
    if (!parent) return;
    UNode*& last = parent->m_place.last_child;
    node->m_place.previous_sibling = last;
    (last ? last->m_place.next_sibling : parent->m_place.first_child) = node;
    last = node;
}

// Afterwards nothing of the list leads to the node; the node still knows its parent.
void UListNode::Unlink(UNode* node) {
    UNode::Place& place = node->m_place;
    if (node->m_devpath) m_index.Remove(node);
    if (UNode* parent = node->m_parent) {
        UNode* before = place.previous_sibling;
        UNode* behind = place.next_sibling;
        (before ? before->m_place.next_sibling : parent->m_place.first_child) = behind;
        (behind ? behind->m_place.previous_sibling : parent->m_place.last_child) = before;
        place.previous_sibling = place.next_sibling = nullptr;
    }
    for (UNode* child = place.first_child; child;) {
        UNode* next = child->m_place.next_sibling;
        child->m_parent = nullptr;
        child->m_place.previous_sibling = child->m_place.next_sibling = nullptr;
        child = next;
    }
    place.first_child = place.last_child = nullptr;
    m_lists[place.position] = nullptr;
    g_nodes.Set(--m_size);
    CloseGaps();
}

// Moving all who came later at each removal would cost more the more nodes there are: gaps are closed when
// they are the larger half.
inline void UListNode::CloseGaps() {
    while (!m_lists.empty() && !m_lists.back())
        m_lists.pop_back();
    if (m_lists.size() <= 2 * m_size + kGapsLeft) return;
    std::size_t position = 0;
    for (UNode* node : m_lists) {
        if (!node) continue;
        node->m_place.position = position;
        m_lists[position++] = node;
    }
    m_lists.resize(position);
}

void UListNode::RemoveNode(const char* devpath) {
    if (!devpath) return;
    Lock();
    UNode* node = m_index.Find(devpath);
    if (!node) {
        Unlock();
        return;
    }
    while (UNode* child = node->m_place.first_child) {
        Unlink(child);
        delete child;
    }
    Unlink(node);
    delete node;
    const std::size_t size = m_size;
    Unlock();
    ULOG(LOG_INFO, "size[%d]", static_cast<int>(size));
}

void UListNode::RemoveAllNodes() {
    Lock();
    while (!m_lists.empty()) {
        UNode* node = m_lists.back();  // never a gap: Unlink leaves none at the end
        Unlink(node);
        delete node;
    }
    Unlock();
}

UNode* UListNode::FindNode(const char* devpath) {
    if (!devpath) return nullptr;
    Lock();
    UNode* node = m_index.Find(devpath);
    Unlock();
    return node;
}

template <typename Wanted>
UNode* UListNode::FindFirst(Wanted wanted) {
    Lock();
    UNode* found = FindFirstLocked(wanted);
    Unlock();
    return found;
}

template <typename Wanted>
UNode* UListNode::FindFirstLocked(Wanted wanted) {
    for (UNode* node : m_lists)
        if (node && wanted(node)) return node;
    return nullptr;
}

UNode* UListNode::FindUsbNode(std::uint8_t port, E_DEV_TYPE type) {
    return FindFirst([port, type](UNode* node) { return IsUsbDeviceOn(node, port, type); });
}

bool UListNode::FindUsbNode(std::uint8_t port, E_DEV_TYPE type, FoundUsbNode& found) {
    Lock();
    UNode* node = FindFirstLocked([port, type](UNode* one) { return IsUsbDeviceOn(one, port, type); });
    if (node) {
        const auto* usb = static_cast<const UNodeUsb*>(node);
        found = {usb->GetPort(), usb->GetVid(), usb->GetPid()};
    }
    Unlock();
    return node != nullptr;
}

UNode* UListNode::FindTtyNode() {
    return FindFirst([](const UNode* node) { return node->GetSubSystem() == SUBSYSTEM_TTY; });
}

UNode* UListNode::FindNetNode(std::uint8_t port) {
    return FindFirst([port](const UNode* node) {
        return node->GetSubSystem() == SUBSYSTEM_NET && node->GetPort() == port;
    });
}

UNode* UListNode::FindTestMountedBlockNode(std::uint8_t port) {
    return FindTestMountedBlockNode(port, nullptr, 0);
}

UNode* UListNode::FindTestMountedBlockNode(std::uint8_t port, char* mount_path, std::size_t size) {
    const auto wanted = [port](UNode* node) {
        if (node->GetSubSystem() != SUBSYSTEM_BLOCK) return false;
        auto* block = static_cast<UNodeBlock*>(node);
        return block->GetMountResult() == 0 && block->GetPortForTestIface() == port;
    };
    Lock();
    UNode* node = FindFirstLocked(wanted);
    const char* path = node ? static_cast<UNodeBlock*>(node)->GetMountPath() : nullptr;
    if (mount_path) std::snprintf(mount_path, size, "%s", path ? path : "");
    Unlock();
    return node;
}

UNode* UListNode::FindParentNode(UNode* node, E_SUBSYSTEM subsystem) {
    if (!node) return nullptr;
    Lock();
    UNode* found = nullptr;
    for (UNode* above = node->m_parent; above; above = above->m_parent) {
        if (subsystem != SUBSYSTEM_NONE && above->GetSubSystem() != subsystem) continue;
        found = above;
        if (subsystem != SUBSYSTEM_NONE) break;
    }
    Unlock();
    return found;
}

UNode* UListNode::FindParentUsbDeviceNode(UNode* node) {
    return FindParentUsbNode(node, USB_DEVTYPE_DEVICE);
}

UNode* UListNode::FindParentUsbInterfaceNode(UNode* node) {
    return FindParentUsbNode(node, USB_DEVTYPE_INTERFACE);
}

UNode* UListNode::FindParentUsbNode(UNode* node, int devtype) {
    Lock();
    while (node && !AsUsb(node, devtype))
        node = node->m_parent;
    Unlock();
    return node;
}

int UListNode::FindChildNode(const UNode* node, std::vector<UNode*>& out) {
    out.clear();
    if (!node) return 0;
    Lock();
    for (UNode* child = node->m_place.first_child; child; child = child->m_place.next_sibling)
        out.push_back(child);
    Unlock();
    return static_cast<int>(out.size());
}

void UListNode::ReplaceText(char*& member, char* text) {
    Lock();
    UString::DestroyString(&member);
    member = text;
    Unlock();
}

std::size_t UListNode::GetSize() {
    Lock();
    const std::size_t size = m_size;
    Unlock();
    return size;
}

std::vector<UNode*> UListNode::GetNodes() {
    std::vector<UNode*> nodes;
    Lock();
    for (UNode* node : m_lists)
        if (node) nodes.push_back(node);
    Unlock();
    return nodes;
}

}  // namespace dcm::usb
