// A disk or one of its partitions: decides which volumes are mounted where, and tells it to media.
#pragma once

#include <cstdint>

#include "misc/Relaxed.h"
#include "node/UNode.h"
#include "platform/status.h"
#include "record/MediaPacket.h"
#include "storage/UBlkid.h"

namespace dcm::usb {

class UListNode;
class UMount;

// Event frame's thread. Deleting the node ejects and unmounts its volume, under the list's lock: a busy one
// keeps all finders of the list waiting for 2.4 seconds.
class UNodeBlock : public UNode {
public:
    static const char* const kTotalPartitionPath;  // attribute of a disk: how many partitions it has
    static constexpr std::uint32_t kMaxMntPartitionNum = 2;  // mounted volumes per disk

    UNodeBlock(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
    ~UNodeBlock() override;

    void ActionAdd(UEventData* event) override;
    void ActionChange(UEventData* event) override;

    // Any thread: -1 not tried, 0 mounted, else the mount's errno.
    int GetMountResult() const { return m_mount_result; }

    // Where the volume is mounted, or null. Other threads copy it under the list's lock.
    const char* GetMountPath() const { return m_mount_path; }

    // The unit's own socket as the test interface counts: 1, 2, or 0 for neither. Any thread.
    std::uint8_t GetPortForTestIface() const;

    // The scripts of navigation data and of the update, with this volume's directory. Not called by the
    // service.
    void RunNavTrigger(bool mounted);
    void RunAutoHmiUpdate();

protected:
    void ActionDisk(bool isAdd);
    void ActionPartition(bool isAdd);
    int Mount(std::uint8_t slot, bool notice);
    void UnMount();
    char* CreateMountPath(std::uint8_t port, std::uint8_t slot);  // the caller's, to be destroyed
    void NotifyBlockToMedia(E_CMD cmd, E_SUB_CMD sub, std::uint8_t slot);
    bool IsAlreadySupported();
    void UpdateUsbClass();
    void UpdateSpeed();

    // Only the mount result and the mount path are read by other threads.
    int m_block_devtype = BLOCK_DEVTYPE_NONE;
    char* m_devname = nullptr;             // owned
    char* m_devfile = nullptr;             // owned
    char* m_mount_path = nullptr;          // owned, replaced under the list's lock
    std::uint32_t m_total_partitions = 0;  // disk: as the kernel says
    std::uint32_t m_mounted_count = 0;     // disk: its volumes mounted so far
    std::uint32_t m_partition_events = 0;  // disk: partitions seen so far; partition: its own ordinal
    std::uint32_t m_slot = 0;              // number in the mount path and in packets
    Relaxed<int> m_mount_result{-1};
    bool m_noticed_media = false;  // media was told of a mount, or would have been of a failure
    std::uint8_t m_usb_class = 0;  // of the parent interface; 0: none
    std::uint8_t m_speed = 0xff;   // of the parent device; 0xff: none
    UListNode* m_lists;            // not owned
    UBlkID m_volume_id;
    UMount* m_mount;       // not owned
    status::Row m_status;  // while the volume is mounted

private:
    bool IsMounted() const { return m_mount_result == 0; }
    UNodeBlock* GetDisk() const;
    bool HasPartitions() const;
    bool IsExternalCdDrive();
    void SetMountPath(char* path);
    void ReadTotalPartitions();
    void ShowStatus();
};

}  // namespace dcm::usb
