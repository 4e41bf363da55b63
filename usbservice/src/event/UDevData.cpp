#include "event/UDevData.h"

#include <libudev.h>

#include <cstring>

#include "event/EventText.h"
#include "record/Text.h"

namespace dcm::usb {
namespace {

constexpr const char* kSeparators = " \r\n";

bool IsSeparator(char character) {
    return character == ' ' || character == '\r' || character == '\n';
}

// The key that the text begins with; -1 when it begins with none.
int KeyAt(const char* text) {
    for (int key = 0; key < kUeventKeys; ++key)
        if (UString::IsParentString(UEventData::kStringID[key], text)) return key;
    return -1;
}

}  // namespace

void UDevData::ParseDevice(udev_device* device) {
    if (!device) {
        ULOG(LOG_FAILED, "device is null");
        return;
    }
    m_device = device;
    for (int key = 0; key < kUeventKeys; ++key) {
        m_values[key] = nullptr;
        m_lengths[key] = 0;
    }
    CopyText(m_text, udev_device_get_sysattr_value(device, "uevent"));

    for (const char* at = m_text; *at;) {
        const int key = IsSeparator(*at) ? -1 : KeyAt(at);
        if (key < 0) {
            ++at;
            continue;
        }
        at += std::strlen(kStringID[key]);
        if (!*at) return;  // Nothing behind the key: it is absent.
        m_values[key] = at;
        m_lengths[key] = static_cast<std::uint32_t>(std::strcspn(at, kSeparators));
        at += m_lengths[key];
    }
}

char* UDevData::CopyValue(E_UEVENT_KEY key) const {
    return UString::CreateString(m_values[key], static_cast<int>(m_lengths[key]));
}

void UDevData::PrintData(bool summary) {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return;
    }
    if (summary)
        PrintSummary();
    else
        PrintDetails();
}

void UDevData::PrintSummary() const {
    ULOG(LOG_INFO, "%s-%s %s%s", udev_device_get_subsystem(m_device), udev_device_get_devtype(m_device),
         kStringID[KEY_DEVPATH], WithoutController(udev_device_get_devpath(m_device)));
}

void UDevData::PrintDetails() const {
    for (int key = 0; key < kUeventKeys; ++key) {
        if (!m_values[key]) continue;
        char* value = CopyValue(static_cast<E_UEVENT_KEY>(key));
        ULOG(LOG_INFO, "%s%s", kStringID[key], value ? value : "");
        UString::DestroyString(&value);
    }
}

E_SUBSYSTEM UDevData::GetSubSystem() {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return SUBSYSTEM_NONE;
    }
    const char* text = udev_device_get_subsystem(m_device);
    if (!text) {
        ULOG(LOG_INFO, "there is no subsystem");
        return SUBSYSTEM_NONE;
    }
    const int subsystem = IndexOf(kStringSubsystem, text);
    if (subsystem >= 0) return static_cast<E_SUBSYSTEM>(subsystem);
    ULOG(LOG_INFO, "unknown subsystem(%s)", text);
    return SUBSYSTEM_NONE;
}

const char* UDevData::GetDevPath() {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return nullptr;
    }
    return udev_device_get_devpath(m_device);
}

const char* UDevData::GetDevName() {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return nullptr;
    }
    return udev_device_get_sysname(m_device);
}

int UDevData::GetUsbDevType() {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return USB_DEVTYPE_NONE;
    }
    const char* text = udev_device_get_devtype(m_device);
    if (!text) {
        ULOG(LOG_INFO, "there is no usb devtype");
        return USB_DEVTYPE_NONE;
    }
    const int type = IndexOf(kStringUsbDevType, text);
    if (type >= 0) return type;
    ULOG(LOG_INFO, "unknown usb devtype(%s)", text);
    return USB_DEVTYPE_NONE;
}

int UDevData::GetBlockDevType() {
    if (!m_device) {
        ULOG(LOG_FAILED, "m_device is null");
        return BLOCK_DEVTYPE_NONE;
    }
    const char* text = udev_device_get_devtype(m_device);
    if (!text) {
        ULOG(LOG_INFO, "there is no block devtype");
        return BLOCK_DEVTYPE_NONE;
    }
    const int type = IndexOf(kStringBlockDevType, text);
    if (type >= 0) return type;
    ULOG(LOG_INFO, "unknown block devtype(%s)", text);
    return BLOCK_DEVTYPE_NONE;
}

void UDevData::GetProduct(unsigned short* vendor, unsigned short* product) {
    if (!m_values[KEY_PRODUCT]) {
        ULOG(LOG_INFO, "there is no product");
        return;
    }
    char* text = CopyValue(KEY_PRODUCT);
    ReadProduct(text, vendor, product);
    UString::DestroyString(&text);
}

int UDevData::GetCustomEvent() {
    if (!m_values[KEY_EVENT]) {
        ULOG(LOG_INFO, "there is no event");
        return 0;
    }
    char* text = CopyValue(KEY_EVENT);
    const bool overcurrent = UString::IsParentString(kStringCustomEvent[1], text);
    const bool none = UString::IsParentString(kStringCustomEvent[0], text);
    if (!overcurrent && !none) ULOG(LOG_INFO, "unknown event(%s)", text);
    UString::DestroyString(&text);
    return overcurrent ? 1 : 0;
}

unsigned char UDevData::GetCustomEventPort() {
    if (!m_values[KEY_PORT_NUM]) {
        ULOG(LOG_INFO, "there is no event port");
        return 0;
    }
    char* text = CopyValue(KEY_PORT_NUM);
    const int port = UString::ConvertString2Int(text);
    UString::DestroyString(&text);
    return static_cast<unsigned char>(port);
}

int UDevData::GetEnumerate() {
    const char* text = m_values[KEY_ENUMERATE];
    if (!text) {
        ULOG(LOG_INFO, "there is no enumerate");
        return 0;
    }
    // Deliberate: compared to the end of the whole text, not of the value. A failed enumeration found at the
    // start is therefore as good as never reported.
    const int result = IndexOf(kStringEnumerate, text);
    if (result >= 0) return result;
    ULOG(LOG_INFO, "unknown enumerate(%s)", text);
    return 0;
}

}  // namespace dcm::usb
