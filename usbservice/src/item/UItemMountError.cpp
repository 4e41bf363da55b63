#include "item/UItemMountError.h"

#include "misc/ULog.h"
#include "notify/UNotifier.h"

namespace dcm::usb {

namespace {

constexpr int kWaitMs = 1000;

template <std::size_t size>
void Terminate(char (&field)[size]) {
    field[size - 1] = '\0';
}

}  // namespace

UItemMountError::UItemMountError(UNotifier* notifier, std::uint8_t port, const st_storage_pkt& packet)
    : UItemDeferred(ITEM_MOUNT_ERROR, notifier, port, kWaitMs), m_packet(packet) {
    Terminate(m_packet.mount_path);
    Terminate(m_packet.label);
    Terminate(m_packet.uuid);
    Terminate(m_packet.fs_type);
}

int UItemMountError::SendMountError() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return -1;
    }
    ULOG(LOG_INFO, "cmd:%d sub_cmd:%d dev_type:%d port:%d parti:%d", m_packet.cmd, m_packet.sub_cmd,
         m_packet.dev_type, m_packet.port, m_packet.partition);
    ULOG(LOG_INFO, "mnt_path:%s label:%s uuid:%s fstype:%s class:%x speed:%d", m_packet.mount_path,
         m_packet.label, m_packet.uuid, m_packet.fs_type, m_packet.usb_class, m_packet.speed);
    m_notifier->Send(&m_packet);
    return -1;
}

}  // namespace dcm::usb
