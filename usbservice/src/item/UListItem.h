// All supervision items: made, processed and deleted here.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "item/UItem.h"
#include "misc/USingleton.h"
#include "record/FrameMessage.h"
#include "record/MediaPacket.h"

namespace dcm::usb {

// Owns the items. Used on the monitor frame's thread; the lock makes calls from elsewhere safe. It is not
// recursive and is held while items are made, run and deleted. Failures are logged; nobody is told.
class UListItem : public USingleton<UListItem> {
public:
    UListItem();
    ~UListItem() override;

    // The first item of the kind on this port, or on any port when `port` is 0. `modulo`: or on a port whose
    // units digit is `port`.
    UItem* FindItem(E_ITEM kind, std::uint8_t port, bool modulo);

    // One item per kind and port, and one voltage item in all: what would be a second one is refused.
    void AddOverCurrentItem(UNotifier* notifier, std::uint8_t port, const char* devpath);
    void AddChTimeoutItem(UNotifier* notifier, std::uint8_t port);
    void AddCarplayTimeoutItem(UNotifier* notifier, std::uint8_t port);
    void AddCarplayCapaItem(UNotifier* notifier, std::uint8_t port);
    void AddVoltageItem(UNotifier* notifier, std::uint8_t port, bool isHubDetect);
    void AddCuttingItem(UNotifier* notifier, std::uint8_t port, UMsgNode* msg);
    void AddMountErrorItem(UNotifier* notifier, std::uint8_t port, const st_storage_pkt* packet);

    void DeleteItem(E_ITEM kind, std::uint8_t port);  // port 0: all of the kind
    void DeleteOverCurrentItem(const char* devpath);
    void DeleteAllItems();

    // One pass: every item once; those that end are deleted.
    void ProcessItems();

protected:
    std::vector<UItem*> m_lists;  // in the order in which they came

private:
    struct Lock;

    bool IsTaken(E_ITEM kind, std::uint8_t port);
    template <typename Item, typename... Arguments>
    bool Append(const Arguments&... arguments);
    template <typename Item, typename... Arguments>
    void AddItem(std::uint8_t port, const Arguments&... arguments);
    UItem* TakeOut(std::size_t position);
    int GetSize() const { return static_cast<int>(m_lists.size()); }

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards m_lists
};

}  // namespace dcm::usb
