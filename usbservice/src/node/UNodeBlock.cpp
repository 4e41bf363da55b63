#include "node/UNodeBlock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "node/UListNode.h"
#include "node/UNodeUsb.h"
#include "notify/UNotifier.h"
#include "record/StatusRecord.h"
#include "storage/UMount.h"

namespace dcm::usb {
namespace {

constexpr std::uint16_t kExternalCdVid = 0x2166;
constexpr std::uint16_t kExternalCdPid = 0x000c;
constexpr std::size_t kDirectoryBytes = 16;  // "PORT9/", "PART255/"

constexpr std::size_t kCommandBytes = 128;  // the longest: 74 characters

constexpr const char* kNavScript = "/hux/app_ro/navi/naviengine/prepare_dil.sh";
constexpr const char* kUpdateScript = "hx.sh";  // on the shell's own search path

const char* Printable(const char* text) {
    return text ? text : "(null)";
}

// For the volume that the node just tried; success and busy do not come here.
E_SUB_CMD ReasonOf(int error) {
    return error == EINVAL ? SUB_CMD_INVALID_FILESYSTEM : SUB_CMD_MOUNT_FAILED;
}

void RunScript(const char* script, const char* arguments, const char* directory) {
    if (!directory) {
        ULOG(LOG_FAILED, "mount path is null");
        return;
    }
    char command[kCommandBytes];
    std::snprintf(command, sizeof command, "%s%s %s", script, arguments, directory);
    if (USpawn::RunCmd(command) == 0) return;
    const int error = errno;
    ULOG(LOG_FAILED, "error in %s %s", command, std::strerror(error));
}

}  // namespace

const char* const UNodeBlock::kTotalPartitionPath = "/disk_partno";

UNodeBlock::UNodeBlock(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : UNode(subsystem, devpath, notifier),
      m_lists(USingleton<UListNode>::GetInstance()),
      m_mount(USingleton<UMount>::GetInstance()) {}

UNodeBlock::~UNodeBlock() {
    UnMount();
    UString::DestroyString(&m_devname);
    UString::DestroyString(&m_devfile);
    UString::DestroyString(&m_mount_path);
}

void UNodeBlock::ActionAdd(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    event->PrintData(false);
    m_block_devtype = event->GetBlockDevType();
    UString::DestroyString(&m_devname);
    m_devname = UString::CreateString(event->GetDevName());
    UString::DestroyString(&m_devfile);
    m_devfile = UString::AppendString(UString::CreateString(UString::kRootDevPath), m_devname);

    m_port.UpdatePort(m_devpath);
    UpdateUsbClass();
    UpdateSpeed();
    if (IsAlreadySupported()) return;

    if (m_block_devtype == BLOCK_DEVTYPE_DISK)
        ActionDisk(true);
    else if (m_block_devtype == BLOCK_DEVTYPE_PARTITION)
        ActionPartition(true);
    else
        ULOG(LOG_REFUSED, "unknown type:%d", m_block_devtype);
}

void UNodeBlock::ActionChange(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (IsAlreadySupported()) {
        ULOG(LOG_REFUSED, "already other supported");
        return;
    }
    event->PrintData(false);
    m_notifier->PushMountError(false, GetPort() % 10, nullptr);
    if (m_block_devtype == BLOCK_DEVTYPE_DISK)
        ActionDisk(false);
    else if (m_block_devtype == BLOCK_DEVTYPE_PARTITION)
        ActionPartition(false);
    else
        ULOG(LOG_REFUSED, "unknown type:%d", m_block_devtype);
}

void UNodeBlock::ActionDisk(bool isAdd) {
    if (isAdd) {
        m_total_partitions = 0;
        m_partition_events = 0;
        // A volume that is still mounted keeps its slot counted, so that no other lands on its directory.
        if (!IsMounted()) m_slot = 0;
        m_mounted_count = m_slot;
    }
    ReadTotalPartitions();
    if (m_total_partitions > 0) {
        if (isAdd)
            NotifyBlockToMedia(CMD_ATTACH, SUB_CMD_NONE, static_cast<std::uint8_t>(m_total_partitions));
        return;
    }
    // No partitions: perhaps a filesystem on the whole disk.
    if (isAdd) NotifyBlockToMedia(CMD_ATTACH, SUB_CMD_NONE, 1);
    if (IsMounted()) return;
    const std::uint32_t slot = m_mounted_count + 1;
    m_mount_result = Mount(static_cast<std::uint8_t>(slot), true);
    if (!IsMounted()) return;
    m_slot = slot;
    m_mounted_count = slot;
    ShowStatus();
}

void UNodeBlock::ReadTotalPartitions() {
    const int total = UString::GetInterfaceValue(m_devpath, kTotalPartitionPath);
    if (total < 0) {
        ULOG(LOG_FAILED, "failed to get total partition count");
        return;
    }
    m_total_partitions = static_cast<std::uint32_t>(total);
    ULOG(LOG_INFO, "total partition count is %d", total);
}

void UNodeBlock::ActionPartition(bool isAdd) {
    UNodeBlock* const disk = GetDisk();
    if (!disk) {
        ULOG(LOG_FAILED, "parent is null");
        return;
    }
    if (isAdd) {
        m_partition_events = ++disk->m_partition_events;
        ULOG(LOG_INFO, "partition num %d", static_cast<int>(m_partition_events));
    }
    // The disk was added again and forgot this volume: its slot stays taken, so that no other lands on its
    // directory.
    if (IsMounted() && disk->m_mounted_count < m_slot) disk->m_mounted_count = m_slot;
    if (disk->m_mounted_count >= kMaxMntPartitionNum) return;

    // A failure is told to media only when no volume of the disk is left to hope for.
    const bool notice = disk->m_mounted_count == 0 && disk->m_total_partitions == m_partition_events;
    if (notice) ULOG(LOG_INFO, "is_notice is true because of last partition and not mounted");
    if (IsMounted()) return;

    const std::uint32_t slot = disk->m_mounted_count + 1;
    m_mount_result = Mount(static_cast<std::uint8_t>(slot), notice);
    if (!IsMounted()) return;
    disk->m_mounted_count = slot;
    m_slot = slot;
    ShowStatus();
}

// The parent is a USB interface when the disk itself is not in the list, and may be another partition: sda1
// is a parent of sda10.
UNodeBlock* UNodeBlock::GetDisk() const {
    if (!m_parent || m_parent->GetSubSystem() != SUBSYSTEM_BLOCK) return nullptr;
    auto* const block = static_cast<UNodeBlock*>(m_parent);
    return block->m_block_devtype == BLOCK_DEVTYPE_DISK ? block : nullptr;
}

int UNodeBlock::Mount(std::uint8_t slot, bool notice) {
    if (!m_mount) {
        ULOG(LOG_FAILED, "mount is null");
        return -1;
    }
    m_volume_id.UpdateVolid(m_devfile);
    const char* const type = m_volume_id.GetType();
    ULOG(LOG_INFO, "vol ret (%s,%s,%s)", Printable(m_volume_id.GetLabel()), Printable(m_volume_id.GetUuid()),
         Printable(type));

    SetMountPath(CreateMountPath(GetPort() % 10, slot));
    const int error = m_mount->Mount(m_devfile, m_mount_path, type ? type : "vfat", 0);
    if (error == 0) {
        NotifyBlockToMedia(CMD_MOUNTED, SUB_CMD_NONE, slot);
        m_noticed_media = true;
        ULOG(LOG_INFO, "Zero SW and not Debug Mode, so skip Jar2Target");
        return 0;
    }
    if (!notice) {
        ULOG(LOG_INFO, "even if mount fail, not notify a block to media");
        return error;
    }
    if (type && error == EBUSY) {
        // Deliberate: a busy volume counts as mounted, although its directory is gone again.
        NotifyBlockToMedia(CMD_ERROR, SUB_CMD_MOUNT_BUSY, slot);
        return 0;
    }
    NotifyBlockToMedia(CMD_ERROR, type ? ReasonOf(error) : SUB_CMD_UNKNOWN_FILESYSTEM, slot);
    m_noticed_media = true;
    return error;
}

// Takes the text over.
void UNodeBlock::SetMountPath(char* path) {
    if (m_lists) {
        m_lists->ReplaceText(m_mount_path, path);
        return;
    }
    UString::DestroyString(&m_mount_path);
    m_mount_path = path;
}

char* UNodeBlock::CreateMountPath(std::uint8_t port, std::uint8_t slot) {
    char port_directory[kDirectoryBytes];
    char slot_directory[kDirectoryBytes];
    std::snprintf(port_directory, sizeof port_directory, "PORT%d/", port);
    std::snprintf(slot_directory, sizeof slot_directory, "PART%d/", slot);

    const bool cd = IsExternalCdDrive();
    char* path = UString::CreateString(UString::kRootMntPath);
    path = UString::AppendString(path, cd ? "CD/" : "USB/");
    path = UString::AppendString(path, cd ? "CDROM/" : port_directory);
    path = UString::AppendString(path, slot_directory);
    ULOG(LOG_INFO, "create path %s", Printable(path));
    return path;
}

bool UNodeBlock::IsExternalCdDrive() {
    UNode* parent = m_lists ? m_lists->FindParentNode(this, SUBSYSTEM_USB) : nullptr;
    if (!parent && m_lists) parent = m_lists->FindParentNode(this, SUBSYSTEM_NONE);
    if (!parent) {
        ULOG(LOG_REFUSED, "parent search error");
        return false;
    }
    if (parent->GetSubSystem() != SUBSYSTEM_USB) return false;  // the topmost one: has no ids
    const auto* const usb = static_cast<const UNodeUsb*>(parent);
    return usb->GetVid() == kExternalCdVid && usb->GetPid() == kExternalCdPid;
}

// From the destructor, under the list's lock: calls nothing of the list.
void UNodeBlock::UnMount() {
    if (!m_noticed_media)
        ULOG(LOG_INFO, "not send the ejected because not notice media");
    else if (HasPartitions())
        ULOG(LOG_INFO, "not send the ejected because partition exists");
    else
        NotifyBlockToMedia(CMD_DETACH, SUB_CMD_NONE, m_slot == 0 ? 1 : static_cast<std::uint8_t>(m_slot));

    if (!IsMounted() || !m_mount || !m_mount_path) {
        ULOG(LOG_INFO, "not need to unmount");
        return;
    }
    ULOG(LOG_INFO, "Zero SW and not Debug Mode, so skip Jar2Target");
    if (m_mount->UnMount(m_mount_path) == 0) {
        ULOG(LOG_INFO, "umount success");
        return;
    }
    const int error = errno;
    ULOG(LOG_FAILED, "umount failed %s", std::strerror(error));
}

// Where the kernel does not count a disk's partitions, those that came do.
bool UNodeBlock::HasPartitions() const {
    return m_block_devtype == BLOCK_DEVTYPE_DISK && (m_total_partitions > 0 || m_partition_events > 0);
}

void UNodeBlock::NotifyBlockToMedia(E_CMD cmd, E_SUB_CMD sub, std::uint8_t slot) {
    if (cmd == CMD_ERROR) {  // Deliberate: media never hears of a failed mount.
        ULOG(LOG_INFO, "popup isn't shown in the usbapp");
        ULOG(LOG_DETAIL, "not sent sub_cmd:%d parti:%d", static_cast<int>(sub), slot);
        return;
    }
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    st_storage_pkt packet{};
    packet.kind = kMediaPacketKind;
    packet.cmd = cmd;
    packet.sub_cmd = sub;
    packet.dev_type = DEV_TYPE_STORAGE;
    packet.port = GetPort() % 10;
    packet.partition = slot;
    CopyText(packet.mount_path, m_mount_path);
    CopyText(packet.label, m_volume_id.GetLabel());
    CopyText(packet.uuid, m_volume_id.GetUuid());
    CopyText(packet.fs_type, m_volume_id.GetType());
    packet.usb_class = m_usb_class;
    packet.speed = m_speed;
    ULOG(LOG_INFO, "cmd:%d sub_cmd:%d dev_type:%d port:%d parti:%d", static_cast<int>(cmd),
         static_cast<int>(sub), static_cast<int>(DEV_TYPE_STORAGE), GetPort() % 10, slot);
    ULOG(LOG_INFO, "mnt_path:%s label:%s uuid:%s fstype:%s class:%x speed:%d", Printable(m_mount_path),
         Printable(m_volume_id.GetLabel()), Printable(m_volume_id.GetUuid()),
         Printable(m_volume_id.GetType()), m_usb_class, m_speed);
    m_notifier->Send(&packet);
}

void UNodeBlock::ShowStatus() {
    MountStatus mount{};
    mount.port = GetPort() % 10;
    mount.partition = static_cast<std::uint8_t>(m_slot);
    CopyText(mount.fs_type, m_volume_id.GetType());
    CopyText(mount.mount_path, m_mount_path);
    CopyText(mount.label, m_volume_id.GetLabel());
    CopyText(mount.uuid, m_volume_id.GetUuid());
    CopyText(mount.devpath, m_devpath);
    m_status.Show(STATUS_MOUNT, mount);
}

// True when another device of this port has the say: its own storage is not for media.
bool UNodeBlock::IsAlreadySupported() {
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        return false;
    }
    const std::uint8_t port = GetPort() % 10;
    if (m_lists->FindUsbNode(port, DEV_TYPE_APPLE_SHUTTLE)) {
        ULOG(LOG_REFUSED, "the port is already SHUFFLE_APPLE, so not mount");
        return true;
    }
    if (m_lists->FindUsbNode(port, DEV_TYPE_MTP)) {
        ULOG(LOG_REFUSED, "the port is already MTP, so not mount");
        return true;
    }
    return false;
}

void UNodeBlock::UpdateUsbClass() {
    m_usb_class = 0;
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        return;
    }
    const UNode* const node = m_lists->FindParentUsbInterfaceNode(this);
    if (!node) {
        ULOG(LOG_FAILED, "pUsbInterfaceNode is null");
        return;
    }
    m_usb_class = static_cast<const UNodeUsb*>(node)->GetInterfaceClass();
}

void UNodeBlock::UpdateSpeed() {
    m_speed = UNodeUsb::kSpeedUnknown;
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        return;
    }
    const UNode* const node = m_lists->FindParentUsbDeviceNode(this);
    if (!node) {
        ULOG(LOG_FAILED, "pUsbDeviceNode is null");
        return;
    }
    m_speed = static_cast<const UNodeUsb*>(node)->GetSpeed();
}

std::uint8_t UNodeBlock::GetPortForTestIface() const {
    std::uint8_t port = 0;
    // Deliberate: any place in the path counts, so port 2 of the internal hub (1-1.2) is 1 as well.
    if (m_devpath && std::strstr(m_devpath, "1-1"))
        port = 1;
    else if (m_devpath && std::strstr(m_devpath, "3-1"))
        port = 2;
    ULOG(LOG_INFO, "path:%s so port :%d", Printable(m_devpath), port);
    return port;
}

void UNodeBlock::RunNavTrigger(bool mounted) {
    RunScript(kNavScript, mounted ? " mount" : " unmount", m_mount_path);
}

void UNodeBlock::RunAutoHmiUpdate() {
    RunScript(kUpdateScript, "", m_mount_path);
}

}  // namespace dcm::usb
