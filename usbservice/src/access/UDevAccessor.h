// The way to the devices themselves: control transfers to phones (libusb), and control of the unit's hub and
// its ports through the host driver's attributes. libusb and hub control end here.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "misc/USingleton.h"
#include "record/Projection.h"

struct libusb_context;
struct libusb_device_handle;

namespace dcm::usb {

// What is written to the attribute ka_hub_control; the engineering menu's hub modes are the same numbers.
enum E_KA_HUB_CONTROL : int { HUB_NONE = 0, HUB_HOST = 1, HUB_DEVICE = 2, HUB_OFF = 3, HUB_ON = 4 };
using E_HUB_MODE = E_KA_HUB_CONTROL;

// What is written to the attribute testmode (USB 2.0 test modes; 4 is Test_Packet).
enum E_KA_TESTMODE : int { TESTMODE_NORMAL = 0, TESTMODE_EYE_PATTERN = 4 };

enum E_HUB_PORT_STATUS : int {
    E_HUB_PORT_STATUS_ERROR = 0,
    E_HUB_PORT_STATUS_CONNECTED = 1,
    E_HUB_PORT_STATUS_DISCONNECTED = 2
};

// Called on the command frame's thread; the lock makes other threads safe. Nothing is retried here, and
// nothing is told to anybody: failures are logged and returned.
//
// `port` of operations on a phone is the libusb port number of the phone (of the port number's two digits the
// tens digit behind a further hub); `port` of resets and of hub control is the unit's own port (the units
// digit). Transfers have no time limit, except for MirrorLink's command (1 s): a phone that never answers
// holds the caller until it is pulled.
class UDevAccessor : public USingleton<UDevAccessor> {
public:
    UDevAccessor();
    ~UDevAccessor() override;

    // --- Android accessory mode (AOA protocol: requests 51, 52, 53) ---

    // The first device with these ids whose libusb port is `port`, opened; null when there is none. The
    // caller holds the lock and closes the handle.
    libusb_device_handle* OpenDeviceWithPort(libusb_context* context, std::uint16_t vid, std::uint16_t pid,
                                             int port);

    // Protocol version; else what the transfer gave: a negative libusb error, or how few bytes came.
    int GetAOAPProtocol(libusb_device_handle* dev_handle);

    // Names us and starts accessory mode; 0 or -1.
    int StartAccessoryMode(libusb_device_handle* dev_handle);
    int StartCarLifeAccessoryMode(libusb_device_handle* dev_handle);
    int StartAOAP(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartCarLifeAOAP(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);

    // E_CAPABILITY: supported, not supported, or unknown when the phone cannot be reached.
    int DiscernAACapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);

    // --- other phones ---

    int DiscernCPCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);  // E_CAPABILITY
    int DiscernMLCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);  // always 0
    // 0, a negative libusb error, or -1.
    int StartMirrorLink(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int RequestRoleSwitch(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int RequestCarLifeRoleSwitch(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    // Role switch, then the unit's port becomes a device port. Not called by the service.
    int StartCarplay(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartCarLife(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);

    // --- resets: power of the unit's port off and on with the two-port hub, else a reset of the phone itself
    // ---

    int ResetPort(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartCPPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartCLPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartAAPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int StartMLPortReset(std::uint8_t port);

    // --- hub and ports: 0 when the command ran ---

    int ControlKaHub(E_KA_HUB_CONTROL mode, std::uint8_t port);
    int ControlTestMode(E_KA_TESTMODE mode, std::uint8_t port);
    int StartEyePattern(std::uint8_t port, bool on);
    int StartHubMode(std::uint8_t port, E_HUB_MODE mode);
    int ResetPortGeneral(std::uint8_t port);  // unbinds the device's driver and binds it again 1 s later
    int StartRemoveUsb(std::uint8_t port);    // full port number, 1 to 99: the kernel forgets the device
    void ResetHubPower();
    int DiscernPortStatus(std::uint8_t port);  // E_HUB_PORT_STATUS

    // Names that a phone shows its user (AOA protocol, request 52, index 0 to 5).
    static const char* const kAccessoryManufacturerName;
    static const char* const kAccessoryModelName;
    static const char* const kAccessoryDescription;
    static const char* const kAccessoryVersion;
    static const char* const kAccessoryURI;
    static const char* const kAccessorySerialNumber;
    static const char* const kCarLifeAccessoryManufacturerName;
    static const char* const kCarLifeAccessoryModelName;
    static const char* const kCarLifeAccessoryDescription;
    static const char* const kCarLifeAccessoryVersion;
    static const char* const kCarLifeAccessoryURI;
    static const char* const kCarLifeAccessorySerialNumber;

    // Attributes below the host controller, and files of the kernel's USB driver.
    static const char* const kPortSelPath;
    static const char* const kHubControlPath;
    static const char* const kTestModePath;
    static const char* const kHubPortStatusPath;
    static const char* const kRemovePath;
    static const char* const kUnBindPath;
    static const char* const kBindPath;
    static const char* const kKaHubControlName[5];  // index: E_KA_HUB_CONTROL

private:
    class Phone;  // an open phone, under the lock

    class Locked {
    public:
        explicit Locked(UDevAccessor& accessor) : m_mutex(&accessor.m_mutex) { pthread_mutex_lock(m_mutex); }
        ~Locked() { pthread_mutex_unlock(m_mutex); }
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;

    private:
        pthread_mutex_t* m_mutex;
    };

    int MakeDevicePort(std::uint8_t port);
    int CutPower(std::uint8_t port);
    void Unbind(std::uint8_t port);
    int Bind(std::uint8_t port);

    pthread_mutex_t m_mutex;  // one operation at a time, so that one libusb context exists at a time
};

}  // namespace dcm::usb
