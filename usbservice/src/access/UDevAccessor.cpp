#include "access/UDevAccessor.h"

#include <libusb.h>

#include <cstring>
#include <memory>

#include "misc/ULog.h"

namespace dcm::usb {
namespace {

constexpr std::uint8_t kToPhone = 0x40;    // host to device, vendor, device
constexpr std::uint8_t kFromPhone = 0xC0;  // device to host, vendor, device

// Vendor requests.
constexpr std::uint8_t kGetProtocol = 51;  // 51 to 53: Android Open Accessory protocol
constexpr std::uint8_t kSendString = 52;
constexpr std::uint8_t kStartAccessory = 53;
constexpr std::uint8_t kRoleSwitch = 0x51;
constexpr std::uint8_t kCarplayCapability = 0x53;
constexpr std::uint8_t kMirrorLink = 0xF0;

constexpr std::uint16_t kRoleCarplay = 1;  // values of kRoleSwitch
constexpr std::uint16_t kRoleCarLife = 0;
constexpr std::uint16_t kMirrorLinkValue = 0x0101;  // value and index of kMirrorLink
constexpr std::uint16_t kMirrorLinkIndex = 0x1004;

constexpr unsigned kNoLimit = 0;
constexpr unsigned kMirrorLinkLimit = 1000;  // ms

constexpr unsigned kCarplaySupported = 1;  // answer to kCarplayCapability

constexpr int kUnreachable = -1;  // the phone could not be opened

struct FreeList {
    void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
struct Exit {
    void operator()(libusb_context* context) const { libusb_exit(context); }
};
struct Close {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};

bool HasIds(libusb_device* device, std::uint16_t vid, std::uint16_t pid) {
    libusb_device_descriptor descriptor = {};
    const int result = libusb_get_device_descriptor(device, &descriptor);
    if (result < 0) {
        ULOG(LOG_FAILED, "libusb_get_device_descriptor error:%d %s", result, libusb_error_name(result));
        return false;
    }
    return descriptor.idVendor == vid && descriptor.idProduct == pid;
}

bool IsOnPort(libusb_device* device, int port) {
    const int device_port = libusb_get_port_number(device);
    if (device_port == port) return true;
    ULOG(LOG_INFO, "usb_path: %d, libusb port_num: %d", port, device_port);
    return false;
}

libusb_device_handle* Open(libusb_device* device) {
    libusb_device_handle* handle = nullptr;
    if (libusb_open(device, &handle) == 0) return handle;
    ULOG(LOG_FAILED, "fail to open libusb");
    return nullptr;
}

// Tells the phone something that needs no data. 0, or a negative libusb error.
int Command(libusb_device_handle* phone, std::uint8_t request, std::uint16_t value, std::uint16_t index,
            unsigned limit) {
    return libusb_control_transfer(phone, kToPhone, request, value, index, nullptr, 0, limit);
}

int SendMirrorLink(libusb_device_handle* phone) {
    const int result = Command(phone, kMirrorLink, kMirrorLinkValue, kMirrorLinkIndex, kMirrorLinkLimit);
    if (result != 0) ULOG(LOG_FAILED, "error in %s", libusb_error_name(result));
    return result;
}

// --- Android accessory mode ---

struct Protocol {
    int received;  // bytes, or a negative libusb error
    int version;

    bool IsWhole() const { return received == 2; }
};

Protocol AskProtocol(libusb_device_handle* phone) {
    unsigned char answer[2] = {};
    const int received =
        libusb_control_transfer(phone, kFromPhone, kGetProtocol, 0, 0, answer, sizeof answer, kNoLimit);
    return {received, answer[0] + answer[1] * 256};
}

Protocol GetProtocol(libusb_device_handle* phone) {
    const Protocol protocol = AskProtocol(phone);
    if (protocol.IsWhole())
        ULOG(LOG_INFO, "succeed to get protocol (ver=%d)", protocol.version);
    else
        ULOG(LOG_FAILED, "failed to get protocol with the error:%d %s", protocol.received,
             libusb_error_name(protocol.received));
    return protocol;
}

struct Introduction {
    const char* text;
    const char* name;  // for the log
};

bool SendText(libusb_device_handle* phone, std::uint16_t index, const char* text) {
    const std::uint16_t length = static_cast<std::uint16_t>(std::strlen(text) + 1);
    // libusb takes one pointer type for both directions; it only reads what is sent.
    auto* const data = reinterpret_cast<unsigned char*>(const_cast<char*>(text));
    return libusb_control_transfer(phone, kToPhone, kSendString, 0, index, data, length, kNoLimit) == length;
}

// `texts`: in the order of their indexes. 0 or -1.
int SwitchToAccessory(libusb_device_handle* phone, const Introduction (&texts)[6]) {
    if (!phone) {
        ULOG(LOG_FAILED, "dev_handle is null");
        return -1;
    }
    const Protocol protocol = GetProtocol(phone);
    if (!protocol.IsWhole() || protocol.version < 1) {
        ULOG(LOG_FAILED, "failed to getAOAPProtocol");
        return -1;
    }
    std::uint16_t index = 0;
    for (const Introduction& introduction : texts) {
        if (!SendText(phone, index++, introduction.text)) {
            ULOG(LOG_FAILED, "failed to Send %s", introduction.name);
            return -1;
        }
    }
    if (Command(phone, kStartAccessory, 0, 0, kNoLimit) != 0) {
        ULOG(LOG_FAILED, "failed to Send ACCESSORY_START");
        return -1;
    }
    return 0;
}

}  // namespace

const char* const UDevAccessor::kAccessoryManufacturerName = "Android";
const char* const UDevAccessor::kAccessoryModelName = "Android Open Automotive Protocol";
const char* const UDevAccessor::kAccessoryDescription = "Android Open Automotive Protocol";
const char* const UDevAccessor::kAccessoryVersion = "1.0";
const char* const UDevAccessor::kAccessorySerialNumber = "0000000012345678";
const char* const UDevAccessor::kCarLifeAccessoryManufacturerName = "Baidu";
const char* const UDevAccessor::kCarLifeAccessoryModelName = "CarLife";
const char* const UDevAccessor::kCarLifeAccessoryDescription = "Baidu CarLife";
const char* const UDevAccessor::kCarLifeAccessoryVersion = "1.0.0";
const char* const UDevAccessor::kCarLifeAccessorySerialNumber = "0720000012345678";
// Where a phone without the app sends its user. General addresses: no phone decides by them.
const char* const UDevAccessor::kAccessoryURI = "https://www.android.com";
const char* const UDevAccessor::kCarLifeAccessoryURI = "https://carlife.baidu.com";

// Null when it cannot be reached. Given back in reverse order: handle, context, lock.
class UDevAccessor::Phone {
public:
    Phone(UDevAccessor& accessor, std::uint16_t vid, std::uint16_t pid, std::uint8_t port)
        : m_locked(accessor) {
        libusb_context* context = nullptr;
        if (libusb_init(&context) != 0) {
            ULOG(LOG_FAILED, "failed to initialize libusb");
            return;
        }
        m_context.reset(context);
        m_handle.reset(accessor.OpenDeviceWithPort(context, vid, pid, port));
        if (!m_handle) ULOG(LOG_FAILED, "failed to open dev_handle");
    }

    libusb_device_handle* Get() const { return m_handle.get(); }

private:
    Locked m_locked;
    std::unique_ptr<libusb_context, Exit> m_context;
    std::unique_ptr<libusb_device_handle, Close> m_handle;
};

UDevAccessor::UDevAccessor() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UDevAccessor::~UDevAccessor() {
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

libusb_device_handle* UDevAccessor::OpenDeviceWithPort(libusb_context* context, std::uint16_t vid,
                                                       std::uint16_t pid, int port) {
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(context, &devices);
    if (count < 0) {
        const int error = static_cast<int>(count);
        ULOG(LOG_FAILED, "libusb_get_device_list error:%d %s", error, libusb_error_name(error));
        return nullptr;
    }
    const std::unique_ptr<libusb_device*, FreeList> list(devices);
    for (ssize_t at = 0; at < count; ++at)
        if (HasIds(devices[at], vid, pid) && IsOnPort(devices[at], port)) return Open(devices[at]);
    return nullptr;
}

int UDevAccessor::GetAOAPProtocol(libusb_device_handle* dev_handle) {
    if (!dev_handle) {
        ULOG(LOG_FAILED, "dev_handle is null");
        return -1;
    }
    const Protocol protocol = GetProtocol(dev_handle);
    return protocol.IsWhole() ? protocol.version : protocol.received;
}

int UDevAccessor::StartAccessoryMode(libusb_device_handle* dev_handle) {
    return SwitchToAccessory(dev_handle, {
                                             {kAccessoryManufacturerName, "kAccessoryManufacturerName"},
                                             {kAccessoryModelName, "kAccessoryModelName"},
                                             {kAccessoryDescription, "kAccessoryDescription"},
                                             {kAccessoryVersion, "kAccessoryVersion"},
                                             {kAccessoryURI, "kAccessoryURI"},
                                             {kAccessorySerialNumber, "kAccessorySerialNumber"},
                                         });
}

int UDevAccessor::StartCarLifeAccessoryMode(libusb_device_handle* dev_handle) {
    return SwitchToAccessory(dev_handle,
                             {
                                 {kCarLifeAccessoryManufacturerName, "kCarLifeAccessoryManufacturerName"},
                                 {kCarLifeAccessoryModelName, "kCarLifeAccessoryModelName"},
                                 {kCarLifeAccessoryDescription, "kCarLifeAccessoryDescription"},
                                 {kCarLifeAccessoryVersion, "kCarLifeAccessoryVersion"},
                                 {kCarLifeAccessoryURI, "kCarLifeAccessoryURI"},
                                 {kCarLifeAccessorySerialNumber, "kCarLifeAccessorySerialNumber"},
                             });
}

int UDevAccessor::StartAOAP(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    ULOG(LOG_INFO, "v:%x p:%x port:%d", vid, pid, port);
    const Phone phone(*this, vid, pid, port);
    return phone.Get() ? StartAccessoryMode(phone.Get()) : kUnreachable;
}

int UDevAccessor::StartCarLifeAOAP(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    ULOG(LOG_INFO, "v:%x p:%x port:%d", vid, pid, port);
    const Phone phone(*this, vid, pid, port);
    return phone.Get() ? StartCarLifeAccessoryMode(phone.Get()) : kUnreachable;
}

int UDevAccessor::DiscernAACapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    const Phone phone(*this, vid, pid, port);
    if (!phone.Get()) return CAPA_UNKNOWN;
    // Deliberate: any version counts, also 0, which is refused when the phone is to be switched.
    const Protocol protocol = AskProtocol(phone.Get());
    if (protocol.IsWhole()) {
        ULOG(LOG_INFO, "succeed to get protocol (ver=%d)", protocol.version);
        return CAPA_SUPPORTED;
    }
    ULOG(LOG_FAILED, "not support, failed to get protocol with the error:%s",
         libusb_error_name(protocol.received));
    return CAPA_NOT_SUPPORTED;
}

int UDevAccessor::DiscernCPCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    const Phone phone(*this, vid, pid, port);
    if (!phone.Get()) return CAPA_UNKNOWN;
    unsigned char answer[4] = {};  // little-endian; what does not come is 0
    if (libusb_control_transfer(phone.Get(), kFromPhone, kCarplayCapability, 0, 0, answer, sizeof answer,
                                kNoLimit) < 0) {
        ULOG(LOG_FAILED, "fail to send control transfer");
        return CAPA_UNKNOWN;
    }
    const unsigned data = answer[0] | answer[1] << 8 | answer[2] << 16 | unsigned{answer[3]} << 24;
    if (data == kCarplaySupported) {
        ULOG(LOG_INFO, "support, data[%u]", data);
        return CAPA_SUPPORTED;
    }
    ULOG(LOG_INFO, "not support, data[%u]", data);
    return CAPA_NOT_SUPPORTED;
}

int UDevAccessor::DiscernMLCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    const Phone phone(*this, vid, pid, port);
    if (phone.Get() && SendMirrorLink(phone.Get()) == 0) ULOG(LOG_INFO, "status[%d]", 0);
    return 0;  // Deliberate: the probe's outcome decides nothing.
}

int UDevAccessor::StartMirrorLink(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    const Phone phone(*this, vid, pid, port);
    return phone.Get() ? SendMirrorLink(phone.Get()) : kUnreachable;
}

int UDevAccessor::RequestRoleSwitch(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    ULOG(LOG_INFO, "v:%x p:%x usb_path:%d", vid, pid, port);
    const Phone phone(*this, vid, pid, port);
    if (!phone.Get()) return kUnreachable;
    const int result = Command(phone.Get(), kRoleSwitch, kRoleCarplay, 0, kNoLimit);
    if (result < 0) ULOG(LOG_FAILED, "fail to send role switch packet[%d]", result);
    return result;
}

int UDevAccessor::RequestCarLifeRoleSwitch(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    ULOG(LOG_INFO, "v:%x p:%x usb_path:%d", vid, pid, port);
    const Phone phone(*this, vid, pid, port);
    if (!phone.Get()) return kUnreachable;
    const int result = Command(phone.Get(), kRoleSwitch, kRoleCarLife, 0, kNoLimit);
    if (result < 0)
        ULOG(LOG_FAILED, "fail to send role switch packet[%d][%s]", result, libusb_error_name(result));
    return result;
}

int UDevAccessor::ResetPort(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    ULOG(LOG_INFO, "port%d vid:%x pid:%x", port, vid, pid);
    const Phone phone(*this, vid, pid, port);
    if (!phone.Get()) return kUnreachable;
    const int result = libusb_reset_device(phone.Get());
    ULOG(LOG_INFO, "reset result [%d]", result);
    if (result != LIBUSB_ERROR_NOT_FOUND) return result;
    ULOG(LOG_INFO, "if ret is -5(not found), make success");  // the phone has already come back as another
    return 0;
}

}  // namespace dcm::usb
