// A mount that failed is told to media only when it is not taken back within a second.
#pragma once

#include "item/UItemDeferred.h"
#include "record/MediaPacket.h"

namespace dcm::usb {

class UItemMountError : public UItemDeferred {
public:
    // The texts of `packet` need no terminator.
    UItemMountError(UNotifier* notifier, std::uint8_t port, const st_storage_pkt& packet);

    int SendMountError();  // always -1

private:
    int Fire() override { return SendMountError(); }

    st_storage_pkt m_packet;
};

}  // namespace dcm::usb
