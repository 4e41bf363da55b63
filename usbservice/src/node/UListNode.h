// All device nodes of the service, keyed by device path: made, found, linked to their parents and deleted
// here. Changed on the event frame's thread only; the finders may be called on any thread.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "misc/USingleton.h"
#include "node/UNode.h"
#include "node/UPathIndex.h"
#include "record/DeviceType.h"

namespace dcm::usb {

// What another thread may know of a USB device: a copy, taken under the list's lock.
struct FoundUsbNode {
    std::uint8_t port;  // full port number
    std::uint16_t vid;
    std::uint16_t pid;
};

// Owns the nodes. A node's parent is the deepest node whose path its own begins with, as plain text: "sda" is
// a parent of "sdaa". A parent is looked for once, when the node comes; who comes later adopts nobody.
// The lock is not recursive: constructors and destructors of nodes run under it and call nothing of the list.
// A pointer that a finder returns is good until the event frame removes the node; another thread reads only
// the node's single numbers through it.
class UListNode : public USingleton<UListNode> {
public:
    UListNode();
    ~UListNode() override;

    // A node of the subsystem's class, not in the list and owned by the caller; null without a message for a
    // subsystem that has none.
    UNode* MakeNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);

    // The new node, or the one that already has this path, or null.
    UNode* InsertNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);

    // Deletes the node and its direct children; what hung below these has no parent from then on.
    void RemoveNode(const char* devpath);
    void RemoveAllNodes();

    UNode* FindNode(const char* devpath);

    // The first USB device (not interface) on port % 10; DEV_TYPE_ANY: any type but hub.
    UNode* FindUsbNode(std::uint8_t port, E_DEV_TYPE type);
    bool FindUsbNode(std::uint8_t port, E_DEV_TYPE type, FoundUsbNode& found);  // for other threads
    UNode* FindTtyNode();
    UNode* FindNetNode(std::uint8_t port);  // the whole port number, not its units digit

    // The first mounted block node on a port of the test interface. The second form also copies its mount
    // path, cut to the buffer and terminated; the buffer is empty when there is none.
    UNode* FindTestMountedBlockNode(std::uint8_t port);
    UNode* FindTestMountedBlockNode(std::uint8_t port, char* mount_path, std::size_t size);

    // The nearest ancestor of the subsystem, the node itself excluded; SUBSYSTEM_NONE: the topmost one.
    UNode* FindParentNode(UNode* node, E_SUBSYSTEM subsystem);
    // The nearest of the node itself and its ancestors.
    UNode* FindParentUsbDeviceNode(UNode* node);
    UNode* FindParentUsbInterfaceNode(UNode* node);

    // Direct children in the order in which they came; returns how many.
    int FindChildNode(const UNode* node, std::vector<UNode*>& out);

    // Replaces a text of a node that finders hand out to other threads: takes `text` over (it may be null)
    // and frees the old one under the lock. Never from a node's constructor or destructor.
    void ReplaceText(char*& member, char* text);

    std::size_t GetSize();
    std::vector<UNode*> GetNodes();  // in the order in which they came

private:
    void Lock() { pthread_mutex_lock(&m_mutex); }
    void Unlock() { pthread_mutex_unlock(&m_mutex); }
    UNode* FindParentUsbNode(UNode* node, int devtype);
    template <typename Wanted>
    UNode* FindFirst(Wanted wanted);
    template <typename Wanted>
    UNode* FindFirstLocked(Wanted wanted);
    void Append(UNode* node, const UPathIndex::Key& key);
    void Unlink(UNode* node);
    void CloseGaps();

    std::vector<UNode*> m_lists;  // in the order in which they came; null where a node was taken out
    std::size_t m_size = 0;       // of the nodes in it
    UPathIndex m_index;           // the same nodes, by path
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;  // all of the above, and the links between nodes
};

}  // namespace dcm::usb
