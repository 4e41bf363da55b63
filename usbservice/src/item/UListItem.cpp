#include "item/UListItem.h"

#include <new>

#include "item/UItemCarplayCapa.h"
#include "item/UItemCutting.h"
#include "item/UItemMountError.h"
#include "item/UItemOverCurrent.h"
#include "item/UItemTimeout.h"
#include "item/UItemVoltageSupply.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {

namespace {

constexpr std::uint8_t kAnyPort = 0;

bool IsOfPort(const UItem& item, std::uint8_t port, bool modulo) {
    if (port == kAnyPort || item.GetPort() == port) return true;
    return modulo && item.GetPort() % 10 == port;
}

bool IsMissing(const UNotifier* notifier) {
    if (!notifier) ULOG(LOG_FAILED, "notifier is null");
    return !notifier;
}

}  // namespace

struct UListItem::Lock {
    explicit Lock(UListItem& list) : m_mutex(list.m_mutex) { pthread_mutex_lock(&m_mutex); }
    ~Lock() { pthread_mutex_unlock(&m_mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    pthread_mutex_t& m_mutex;
};

UListItem::UListItem() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UListItem::~UListItem() {
    DeleteAllItems();
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

UItem* UListItem::FindItem(E_ITEM kind, std::uint8_t port, bool modulo) {
    const Lock lock(*this);
    for (UItem* item : m_lists) {
        if (!item) {
            ULOG(LOG_FAILED, "cur_item is null");
            return nullptr;
        }
        if (item->GetKind() == kind && IsOfPort(*item, port, modulo)) return item;
    }
    return nullptr;
}

// An over-current is that of one port of one hub. A second voltage item would never be run, see ProcessItems.
// All others belong to a port of the unit, whatever hub is plugged into it.
bool UListItem::IsTaken(E_ITEM kind, std::uint8_t port) {
    const bool modulo = kind != ITEM_OVER_CURRENT && kind != ITEM_VOLTAGE_SUPPLY;
    if (!FindItem(kind, kind == ITEM_VOLTAGE_SUPPLY ? kAnyPort : port, modulo)) return false;
    ULOG(LOG_REFUSED, "port:%d already exists", port);
    return true;
}

template <typename Item, typename... Arguments>
bool UListItem::Append(const Arguments&... arguments) {
    Item* item = nullptr;
    try {
        m_lists.reserve(m_lists.size() + 1);  // before there is an item: it may report when it is made
        item = new (std::nothrow) Item(arguments...);
    } catch (const std::bad_alloc&) {
        item = nullptr;  // no room in the list, or for a text of the item
    }
    if (!item) {
        ULOG(LOG_FAILED, "failed to new item instance");
        return false;
    }
    m_lists.push_back(item);
    return true;
}

template <typename Item, typename... Arguments>
void UListItem::AddItem(std::uint8_t port, const Arguments&... arguments) {
    const Lock lock(*this);
    if (Append<Item>(arguments...)) ULOG(LOG_INFO, "port:%d list_size:%d", port, GetSize());
}

void UListItem::AddOverCurrentItem(UNotifier* notifier, std::uint8_t port, const char* devpath) {
    if (IsMissing(notifier)) return;
    if (!devpath) {
        ULOG(LOG_FAILED, "devpath is null");
        return;
    }
    if (IsTaken(ITEM_OVER_CURRENT, port)) return;
    const Lock lock(*this);
    if (Append<UItemOverCurrent>(ITEM_OVER_CURRENT, notifier, port, devpath))
        ULOG(LOG_INFO, "port:%d devpath:%s list_size:%d", port, devpath, GetSize());
}

void UListItem::AddVoltageItem(UNotifier* notifier, std::uint8_t port, bool isHubDetect) {
    if (IsMissing(notifier)) return;
    if (IsTaken(ITEM_VOLTAGE_SUPPLY, port)) return;
    const Lock lock(*this);
    if (Append<UItemVoltageSupply>(notifier, port, isHubDetect))
        ULOG(LOG_INFO, "port:%d isHubDetect:%d list_size:%d", port, isHubDetect, GetSize());
}

void UListItem::AddChTimeoutItem(UNotifier* notifier, std::uint8_t port) {
    if (IsMissing(notifier)) return;
    if (IsTaken(ITEM_CH_TIMEOUT, port)) return;
    AddItem<UItemTimeout>(port, ITEM_CH_TIMEOUT, notifier, port);
}

void UListItem::AddCarplayTimeoutItem(UNotifier* notifier, std::uint8_t port) {
    if (IsMissing(notifier)) return;
    if (IsTaken(ITEM_CARPLAY_TIMEOUT, port)) return;
    AddItem<UItemTimeout>(port, ITEM_CARPLAY_TIMEOUT, notifier, port);
}

void UListItem::AddCarplayCapaItem(UNotifier* notifier, std::uint8_t port) {
    if (IsMissing(notifier)) return;
    if (IsTaken(ITEM_CARPLAY_CAPA, port)) return;
    AddItem<UItemCarplayCapa>(port, notifier, port);
}

void UListItem::AddCuttingItem(UNotifier* notifier, std::uint8_t port, UMsgNode* msg) {
    if (IsMissing(notifier)) return;
    if (!msg) {
        ULOG(LOG_FAILED, "pkt is null");
        return;
    }
    if (IsTaken(ITEM_CUTTING, port)) return;
    AddItem<UItemCutting>(port, notifier, port, *msg);
}

void UListItem::AddMountErrorItem(UNotifier* notifier, std::uint8_t port, const st_storage_pkt* packet) {
    if (IsMissing(notifier)) return;
    if (!packet) {
        ULOG(LOG_FAILED, "pkt is null");
        return;
    }
    if (IsTaken(ITEM_MOUNT_ERROR, port)) return;
    AddItem<UItemMountError>(port, notifier, port, *packet);
}

UItem* UListItem::TakeOut(std::size_t position) {
    UItem* const item = m_lists[position];
    m_lists.erase(m_lists.begin() + static_cast<std::ptrdiff_t>(position));
    return item;
}

void UListItem::DeleteItem(E_ITEM kind, std::uint8_t port) {
    if (kind == 0 || kind > ITEM_CARPLAY_CAPA) {
        ULOG(LOG_FAILED, "item:%d is invalid", kind);
        return;
    }
    const Lock lock(*this);
    for (std::size_t position = 0; position < m_lists.size();) {
        UItem* const item = m_lists[position];
        if (!item) {
            ULOG(LOG_FAILED, "cur_item is null");
            return;
        }
        if (item->GetKind() != kind || !IsOfPort(*item, port, false)) {
            ++position;
            continue;
        }
        TakeOut(position);
        ULOG(LOG_INFO, "item:%d port:%d terminated list_size:%d", kind, item->GetPort(), GetSize());
        delete item;
    }
}

void UListItem::DeleteOverCurrentItem(const char* devpath) {
    ULOG(LOG_INFO, "devpath:%s", devpath);
    if (!devpath) return;
    const Lock lock(*this);
    for (std::size_t position = 0; position < m_lists.size();) {
        UItem* const item = m_lists[position];
        if (!item) {
            ULOG(LOG_FAILED, "cur_item is null");
            return;
        }
        if (item->GetKind() != ITEM_OVER_CURRENT ||
            static_cast<UItemOverCurrent*>(item)->GetDevPath() != devpath) {
            ++position;
            continue;
        }
        TakeOut(position);
        ULOG(LOG_INFO, "port:%d terminated list_size:%d", item->GetPort(), GetSize());
        delete item;
    }
}

void UListItem::DeleteAllItems() {
    const Lock lock(*this);
    for (const UItem* item : m_lists)
        delete item;
    m_lists.clear();
}

void UListItem::ProcessItems() {
    bool isVoltageHandled = false;
    const Lock lock(*this);
    for (std::size_t position = 0; position < m_lists.size();) {
        UItem* const item = m_lists[position];
        if (!item) {
            ULOG(LOG_FAILED, "cur_item is null");
            return;
        }
        // Deliberate: an unknown item, or a second voltage item, keeps the pass at this place for ever. The
        // operations that add items let neither into the list.
        if (item->GetKind() > ITEM_CARPLAY_CAPA) {
            ULOG(LOG_REFUSED, "unknown item:%d", item->GetKind());
            continue;
        }
        if (item->GetKind() == ITEM_VOLTAGE_SUPPLY) {
            if (isVoltageHandled) {
                ULOG(LOG_REFUSED, "already handle voltage_supply");
                continue;
            }
            isVoltageHandled = true;
        }
        if (item->Process() == 0) {
            ++position;
            continue;
        }
        TakeOut(position);
        ULOG(LOG_INFO, "port%d terminated list_size:%d", item->GetPort(), GetSize());
        delete item;
    }
}

}  // namespace dcm::usb
