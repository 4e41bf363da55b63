// The part of UDevAccessor that controls the unit's hub and its ports.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "access/UDevAccessor.h"
#include "board/UPort.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {
namespace {

constexpr std::uint8_t kTwoPorts = 2;

constexpr useconds_t kCarplayOffTime = 500000;  // us without power that a phone takes for unplugging
constexpr unsigned kOffTime = 1;                // s, the same after the other modes
constexpr unsigned kUnboundTime = 1;            // s
constexpr useconds_t kHubOffTime = 500000;      // us

constexpr const char* kHubSupply = "/sys/class/gpio/gpio70/value";

constexpr std::size_t kCommandBytes = 256;
constexpr std::uint8_t kPortMost = 99;

[[gnu::format(printf, 1, 2)]] int Run(const char* format, ...) {
    char command[kCommandBytes] = {};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(command, sizeof command, format, arguments);
    va_end(arguments);
    ULOG(LOG_INFO, "%s", command);
    return USpawn::RunCmd(command);
}

// What is read or written next concerns this port.
int SelectPort(std::uint8_t port) {
    const int result = Run("echo %d > /sys%s%s", port, UPort::GetBoardHostPath(), UDevAccessor::kPortSelPath);
    const int error = errno;
    if (result != 0) ULOG(LOG_FAILED, "error in port_sel %d %s", port, std::strerror(error));
    return result;
}

int SelectPortAndWrite(std::uint8_t port, int value, const char* attribute) {
    if (const int result = SelectPort(port); result != 0) return result;
    const int result = Run("echo %d > /sys%s%s", value, UPort::GetBoardHostPath(), attribute);
    const int error = errno;
    // Deliberate: the same text for the test mode.
    if (result != 0) ULOG(LOG_FAILED, "error in ka_hub_control %d %s", value, std::strerror(error));
    return result;
}

bool IsHubMode(int mode) {
    return mode >= HUB_HOST && mode <= HUB_ON;
}

bool HasTwoPortHub() {
    return UPort::m_hub_max_port == kTwoPorts;
}

}  // namespace

const char* const UDevAccessor::kPortSelPath = "/port_sel";
const char* const UDevAccessor::kHubControlPath = "/ka_hub_control";
const char* const UDevAccessor::kTestModePath = "/testmode";
const char* const UDevAccessor::kHubPortStatusPath = "/ka_hub_port_status";
const char* const UDevAccessor::kRemovePath = "/remove";
const char* const UDevAccessor::kUnBindPath = "/sys/bus/usb/drivers/usb/unbind";
const char* const UDevAccessor::kBindPath = "/sys/bus/usb/drivers/usb/bind";
const char* const UDevAccessor::kKaHubControlName[] = {"HUB_NONE", "HUB_HOST", "HUB_DEVICE", "HUB_OFF",
                                                       "HUB_ON"};

int UDevAccessor::StartCarplay(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (const int result = RequestRoleSwitch(vid, pid, port); result != 0) return result;
    return MakeDevicePort(port);
}

int UDevAccessor::StartCarLife(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (const int result = RequestCarLifeRoleSwitch(vid, pid, port); result != 0) return result;
    return MakeDevicePort(port);
}

int UDevAccessor::MakeDevicePort(std::uint8_t port) {
    if (!HasTwoPortHub()) {
        ULOG(LOG_FAILED, "not 2 port hub");
        return 0;
    }
    ULOG(LOG_INFO, "hub to device mode !!");
    return ControlKaHub(HUB_DEVICE, port);
}

int UDevAccessor::StartCPPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (!HasTwoPortHub()) return ResetPort(vid, pid, port);
    ControlKaHub(HUB_OFF, port);
    usleep(kCarplayOffTime);
    return ControlKaHub(HUB_ON, port);
}

int UDevAccessor::StartCLPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    return HasTwoPortHub() ? CutPower(port) : ResetPort(vid, pid, port);
}

int UDevAccessor::StartAAPortReset(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    return StartCLPortReset(vid, pid, port);
}

int UDevAccessor::StartMLPortReset(std::uint8_t port) {
    return HasTwoPortHub() ? CutPower(port) : ResetPortGeneral(port);
}

int UDevAccessor::CutPower(std::uint8_t port) {
    ControlKaHub(HUB_OFF, port);
    sleep(kOffTime);
    return ControlKaHub(HUB_ON, port);
}

int UDevAccessor::ControlKaHub(E_KA_HUB_CONTROL mode, std::uint8_t port) {
    if (!IsHubMode(mode)) {
        ULOG(LOG_REFUSED, "unknown mode:%d", mode);
        return -1;
    }
    ULOG(LOG_INFO, "port%d mode:%s", port, kKaHubControlName[mode]);
    const Locked locked(*this);
    return SelectPortAndWrite(port, mode, kHubControlPath);
}

int UDevAccessor::ControlTestMode(E_KA_TESTMODE mode, std::uint8_t port) {
    ULOG(LOG_INFO, "port%d mode:%d", port, mode);
    const Locked locked(*this);
    return SelectPortAndWrite(port, mode, kTestModePath);
}

int UDevAccessor::StartEyePattern(std::uint8_t port, bool on) {
    return ControlTestMode(on ? TESTMODE_EYE_PATTERN : TESTMODE_NORMAL, port);
}

int UDevAccessor::StartHubMode(std::uint8_t port, E_HUB_MODE mode) {
    if (IsHubMode(mode)) return ControlKaHub(mode, port);
    ULOG(LOG_REFUSED, "unknown mode:%d", mode);
    return -1;
}

int UDevAccessor::ResetPortGeneral(std::uint8_t port) {
    ULOG(LOG_INFO, "port%d", port);
    Unbind(port);
    sleep(kUnboundTime);
    return Bind(port);
}

void UDevAccessor::Unbind(std::uint8_t port) {
    const Locked locked(*this);
    const int result = Run("echo 1-1.%d > %s", port, kUnBindPath);
    const int error = errno;
    if (result != 0) ULOG(LOG_FAILED, "error in str_off %d %s", port, std::strerror(error));
}

int UDevAccessor::Bind(std::uint8_t port) {
    const Locked locked(*this);
    const int result = Run("echo 1-1.%d > %s", port, kBindPath);
    const int error = errno;
    if (result != 0) ULOG(LOG_FAILED, "error in str_on %d %s", port, std::strerror(error));
    return result;
}

int UDevAccessor::StartRemoveUsb(std::uint8_t port) {
    if (port < 1 || port > kPortMost) {
        ULOG(LOG_FAILED, "port:%d is invalid", port);
        return -1;
    }
    const int own = port % 10;
    const int further = port / 10;  // 0: no further hub
    const Locked locked(*this);
    const char* const host = UPort::GetBoardHostPath();
    const int result = further == 0 ? Run("echo 1 > /sys%s/usb1/1-1/1-1.%d%s", host, own, kRemovePath)
                                    : Run("echo 1 > /sys%s/usb1/1-1/1-1.%d/1-1.%d.%d%s", host, own, own,
                                          further, kRemovePath);
    const int error = errno;
    if (result != 0) ULOG(LOG_FAILED, "error in remove %s", std::strerror(error));
    return result;
}

void UDevAccessor::ResetHubPower() {
    ULOG(LOG_INFO, "hub 5v off and on");
    // The line is high for off.
    if (Run("echo 1 > %s", kHubSupply) != 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "error in hub_off %s", std::strerror(error));
    }
    usleep(kHubOffTime);
    if (Run("echo 0 > %s", kHubSupply) != 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "error in hub_on %s", std::strerror(error));
    }
}

int UDevAccessor::DiscernPortStatus(std::uint8_t port) {
    const Locked locked(*this);
    if (SelectPort(port) != 0) return E_HUB_PORT_STATUS_ERROR;
    switch (UString::GetInterfaceValue(UPort::GetBoardHostPath(), kHubPortStatusPath)) {
        case 0:
            ULOG(LOG_INFO, "E_HUB_PORT_STATUS_DISCONNECTED");
            return E_HUB_PORT_STATUS_DISCONNECTED;
        case 1:
            ULOG(LOG_INFO, "E_HUB_PORT_STATUS_CONNECTED");
            return E_HUB_PORT_STATUS_CONNECTED;
        default:
            ULOG(LOG_FAILED, "error in ka_hub_port_status port:%d", port);
            return E_HUB_PORT_STATUS_ERROR;
    }
}

}  // namespace dcm::usb
