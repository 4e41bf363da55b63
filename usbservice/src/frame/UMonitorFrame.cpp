#include "frame/UMonitorFrame.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "item/UListItem.h"
#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "record/FrameMessage.h"
#include "record/MonitorMessage.h"

namespace dcm::usb {

namespace {

constexpr useconds_t kPeriodMicroseconds = 100000;

// The whole record, zero where the message is shorter.
template <typename Record>
Record Whole(unsigned int len, const char* msg) {
    Record record{};
    std::memcpy(&record, msg, std::min<std::size_t>(len, sizeof record));
    return record;
}

}  // namespace

UMonitorFrame::UMonitorFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message)
    : frame::Frame(interface, frame::BLOCK_NEVER, message, nullptr) {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
}

UMonitorFrame::~UMonitorFrame() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    if (m_list_item) {
        UListItem::Release();  // the items' last words need the notifier
        m_list_item = nullptr;
    }
    delete m_notifier;
}

void UMonitorFrame::Init() {
    m_notifier = new (std::nothrow) UNotifier;
    if (!m_notifier) ULOG(LOG_FAILED, "failed to new notifier instance");
    m_list_item = UListItem::GetInstance();
}

void UMonitorFrame::event_handler(unsigned long src, unsigned int len, char* buf) {
    const bool isRequest = len != 0 && src == kSourceUsb;
    switch (m_state) {
        case E_STATE_INIT:
            Init();
            if (isRequest) {
                ULOG(LOG_INFO, "ParseMsg in E_STATE_INIT ");  // Deliberate: the trailing blank.
                ParseMsg(len, buf);
            }
            m_state = E_STATE_RUNNING;
            break;
        case E_STATE_RUNNING:
            if (isRequest) ParseMsg(len, buf);
            Process();
            break;
        default:
            ULOG(LOG_REFUSED, "unknown state:%d", m_state);
    }
    usleep(kPeriodMicroseconds);
}

void UMonitorFrame::Process() {
    if (!m_list_item) {
        ULOG(LOG_FAILED, "list_item is null");
        return;
    }
    m_list_item->ProcessItems();
}

void UMonitorFrame::ParseMsg(unsigned int len, char* msg) {
    if (len == 0 || !msg || !m_list_item) {
        ULOG(LOG_FAILED, "error len(%d) or str(%p) or m_list_item(%p)", len, static_cast<void*>(msg),
             static_cast<void*>(m_list_item));
        return;
    }
    const auto head = Whole<UMsgHeader>(len, msg);
    switch (head.id) {
        case MSGID_MOUNT_ERROR_ADD: {
            const auto message = Whole<UMsgMountError>(len, msg);
            m_list_item->AddMountErrorItem(m_notifier, head.port, &message.packet);
            return;
        }
        case MSGID_MOUNT_ERROR_DEL:
            m_list_item->DeleteItem(ITEM_MOUNT_ERROR, head.port);
            return;
        case MSGID_OVER_CURRENT_ADD:
        case MSGID_OVER_CURRENT_DEL: {
            auto message = Whole<UMsgOverCurrent>(len, msg);
            message.devpath[sizeof message.devpath - 1] = '\0';
            if (head.id == MSGID_OVER_CURRENT_ADD)
                m_list_item->AddOverCurrentItem(m_notifier, head.port, message.devpath);
            else
                m_list_item->DeleteOverCurrentItem(message.devpath);
            return;
        }
        case MSGID_VOLTAGE_ADD:
            m_list_item->AddVoltageItem(m_notifier, head.port, head.argument != 0);
            return;
        case MSGID_VOLTAGE_DEL:
            m_list_item->DeleteItem(ITEM_VOLTAGE_SUPPLY, head.port);
            return;
        case MSGID_CUTTING_ADD: {
            auto message = Whole<UMsgNode>(len, msg);
            m_list_item->AddCuttingItem(m_notifier, head.port, &message);
            return;
        }
        case MSGID_CUTTING_DEL:
            m_list_item->DeleteItem(ITEM_CUTTING, head.port);
            return;
        case MSGID_CH_TIMEOUT_ADD:
            m_list_item->AddChTimeoutItem(m_notifier, head.port);
            return;
        case MSGID_CH_TIMEOUT_DEL:
            m_list_item->DeleteItem(ITEM_CH_TIMEOUT, head.port);
            return;
        case MSGID_CARPLAY_TIMEOUT_ADD:
            m_list_item->AddCarplayTimeoutItem(m_notifier, head.port);
            return;
        case MSGID_CARPLAY_TIMEOUT_DEL:
            m_list_item->DeleteItem(ITEM_CARPLAY_TIMEOUT, head.port);
            return;
        case MSGID_CARPLAY_CAPA_ADD:
            m_list_item->AddCarplayCapaItem(m_notifier, head.port);
            return;
        case MSGID_CARPLAY_CAPA_DEL:
            m_list_item->DeleteItem(ITEM_CARPLAY_CAPA, head.port);
            return;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", head.id);
    }
}

}  // namespace dcm::usb
