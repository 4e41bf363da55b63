// libusb as the accessor sees it: phones that a test plugs in and that answer as it says. Every call can
// fail, everything handed out is counted, and what is used after it was given back is written down. Any
// thread; the answers themselves are asked for without a lock, so that they may take as long as the test
// likes.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "support/RecordingPlatform.h"

namespace test {

// A control transfer as the phone sees it.
struct Transfer {
    std::uint8_t request_type;
    std::uint8_t request;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
    Bytes sent = {};        // host to device only
    unsigned timeout = 0;   // ms, 0: none
    std::uint8_t port = 0;  // of the phone, as libusb numbers it
    std::uint16_t vid = 0;  // of the phone
    std::uint16_t pid = 0;

    bool IsIn() const { return (request_type & 0x80) != 0; }
    bool operator==(const Transfer&) const = default;
};
void PrintTo(const Transfer& transfer, std::ostream* out);

// What a transfer gives: a negative libusb error, or how many bytes went over; `data` is what came.
struct Answer {
    int result;
    Bytes data = {};
};
Answer Stall();                          // the phone does not know the request
Answer Taken(const Transfer& transfer);  // all that was sent arrived
Answer Reply(Bytes data);                // that much came
Answer Never();  // nothing comes until the time limit (which passes at once), or until the phone is unplugged

struct FakePhone {
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t port;
    std::function<Answer(const Transfer&)> answer = [](const Transfer&) { return Stall(); };
    int descriptor_error = 0;
    int open_error = 0;
    int reset_result = 0;
    bool leaves_when_listed = false;  // gone when it is opened
};

// Forgets everything: phones, failures, transfers, what is held.
void ResetUsb();

int Plug(FakePhone phone);  // behind the phones that are there; returns a name for Unplug
void Unplug(int phone);     // transfers in flight and all later ones fail with "no device"
void FailUsbInit(int error);
void FailUsbList(int error);

std::vector<Transfer> Transfers();  // since the reset, or the last ClearTransfers
void ClearTransfers();

// The calls in their order: "init", "get_device_list", "get_device_descriptor", "get_port_number", "open",
// "control_transfer", "reset_device", "close", "free_device_list", "exit".
std::vector<std::string> UsbCalls();
// Called at the start of each call, on its thread.
void OnUsbCall(std::function<void(const std::string& call)> watch);

// What was handed out and not given back.
struct UsbHeld {
    int contexts = 0;
    int handles = 0;
    int lists = 0;
    int references = 0;  // to devices, of lists and handles
    bool operator==(const UsbHeld&) const = default;
    friend void PrintTo(const UsbHeld& held, std::ostream* out) {
        *out << held.contexts << " contexts, " << held.handles << " handles, " << held.lists << " lists, "
             << held.references << " references";
    }
};
UsbHeld HeldOfUsb();
int MostUsbContexts();                 // that were open at the same time
std::vector<std::string> UsbMisuse();  // what no program may do

}  // namespace test
