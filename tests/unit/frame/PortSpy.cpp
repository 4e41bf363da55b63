#include "PortSpy.h"

#include <mutex>

#include "port/UListPortState.h"

namespace test {
namespace {

std::mutex calls_mutex;
std::vector<PortCall> calls;

void Called(std::string operation, Bytes record = {}) {
    std::lock_guard lock(calls_mutex);
    calls.push_back({std::move(operation), std::move(record)});
}

}  // namespace

std::vector<PortCall> PortCalls() {
    std::lock_guard lock(calls_mutex);
    return calls;
}

void ClearPortCalls() {
    std::lock_guard lock(calls_mutex);
    calls.clear();
}

}  // namespace test

using dcm::usb::UListPortState;
using test::BytesOf;
using test::Called;

extern "C" {

void __wrap__ZN3dcm3usb14UListPortState11ProcessModeEPNS0_10UMsgChModeE(UListPortState*,
                                                                        dcm::usb::UMsgChMode* message) {
    Called("mode", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState13ProcessSearchEPNS0_10UMsgHeaderE(UListPortState*,
                                                                          dcm::usb::UMsgSearch* message) {
    Called("search", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState19ProcessUsbDetectionEPNS0_8UMsgNodeE(UListPortState*,
                                                                             dcm::usb::UMsgNode* message) {
    Called("device", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState27ProcessDeferredUsbDetectionEPNS0_8UMsgNodeE(
    UListPortState*, dcm::usb::UMsgNode* message) {
    Called("deferred device", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState19ProcessHidDetectionEPNS0_10UMsgHeaderE(
    UListPortState*, dcm::usb::UMsgHidNode* message) {
    Called("hid", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState19ProcessTtyDetectionEPNS0_10UMsgHeaderE(
    UListPortState*, dcm::usb::UMsgTtyNode* message) {
    Called("tty", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState14ProcessTimeoutEPNS0_10UMsgHeaderE(UListPortState*,
                                                                           dcm::usb::UMsgTimeout* message) {
    Called("timeout", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState18ProcessCarplayCapaEPNS0_10UMsgHeaderE(
    UListPortState*, dcm::usb::UMsgCarplayCapa* message) {
    Called("capability", BytesOf(*message));
}

void __wrap__ZN3dcm3usb14UListPortState24ProcessSignalQualityTestEhb(UListPortState*, std::uint8_t port,
                                                                     bool enable) {
    Called("signal test port " + std::to_string(port) + (enable ? " on" : " off"));
}

void __wrap__ZN3dcm3usb14UListPortState14ProcessHubModeEhNS0_16E_KA_HUB_CONTROLE(UListPortState*,
                                                                                 std::uint8_t port,
                                                                                 dcm::usb::E_HUB_MODE mode) {
    Called("hub mode port " + std::to_string(port) + " " + std::to_string(mode));
}

int __wrap__ZN3dcm3usb12UDevAccessor14StartRemoveUsbEh(dcm::usb::UDevAccessor*, std::uint8_t port) {
    Called("remove port " + std::to_string(port));
    return 0;
}

void __wrap__ZN3dcm3usb12UDevAccessor13ResetHubPowerEv(dcm::usb::UDevAccessor*) {
    Called("reset hub power");
}
}
