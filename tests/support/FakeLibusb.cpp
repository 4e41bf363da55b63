#include "support/FakeLibusb.h"

#include <libusb.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

namespace {

struct Phone {
    int name;
    test::FakePhone is;
    bool gone = false;
};

}  // namespace

struct libusb_context {};

struct libusb_device {
    std::shared_ptr<Phone> phone;
    int references = 1;
};

struct libusb_device_handle {
    libusb_device* device;
};

namespace test {
namespace {

constexpr int kNever = 1 << 20;  // more than any transfer can carry

struct Bus {
    std::mutex mutex;
    std::condition_variable left;

    int names = 0;
    std::vector<std::shared_ptr<Phone>> phones;
    int init_error = 0;
    int list_error = 0;
    std::function<void(const std::string&)> watch;

    std::vector<Transfer> transfers;
    std::vector<std::string> calls;
    std::vector<std::string> misuse;
    std::size_t most_contexts = 0;

    // What is handed out; whoever does not give it back leaves it here.
    std::list<std::unique_ptr<libusb_context>> contexts;
    std::list<std::unique_ptr<libusb_device_handle>> handles;
    std::list<std::unique_ptr<libusb_device>> devices;
    std::list<std::vector<libusb_device*>> lists;  // each ends with a null
};

Bus bus;

using Guard = std::unique_lock<std::mutex>;

template <typename Owned, typename Thing>
auto Find(std::list<Owned>& things, Thing* wanted) {
    return std::find_if(things.begin(), things.end(), [wanted](auto& one) { return one.get() == wanted; });
}

void Called(const char* call) {
    std::function<void(const std::string&)> watch;
    {
        const Guard guard(bus.mutex);
        bus.calls.emplace_back(call);
        watch = bus.watch;
    }
    if (watch) watch(call);
}

// Whether `thing` is held now; under the lock.
template <typename Owned, typename Thing>
bool Known(std::list<Owned>& things, Thing* wanted, const char* call) {
    if (Find(things, wanted) != things.end()) return true;
    bus.misuse.push_back(std::string(call) + " of what is not held");
    return false;
}

void GiveBack(libusb_device* device) {
    if (--device->references == 0) bus.devices.erase(Find(bus.devices, device));
}

Transfer Described(const Phone& phone, std::uint8_t type, std::uint8_t request, std::uint16_t value,
                   std::uint16_t index, const unsigned char* data, std::uint16_t length, unsigned timeout) {
    Transfer transfer{type, request, value,         index,        length,
                      {},   timeout, phone.is.port, phone.is.vid, phone.is.pid};
    if (!transfer.IsIn() && length > 0) transfer.sent.assign(data, data + length);
    return transfer;
}

int Finish(const Transfer& transfer, const Answer& answer, const std::shared_ptr<Phone>& phone,
           unsigned char* data) {
    Guard guard(bus.mutex);
    if (answer.result == kNever && !phone->gone) {
        if (transfer.timeout > 0) return LIBUSB_ERROR_TIMEOUT;
        bus.left.wait(guard, [&phone] { return phone->gone; });
    }
    if (phone->gone) return LIBUSB_ERROR_NO_DEVICE;
    if (transfer.IsIn() && !answer.data.empty())
        std::memcpy(data, answer.data.data(), std::min<std::size_t>(answer.data.size(), transfer.length));
    return answer.result;
}

}  // namespace

void PrintTo(const Transfer& transfer, std::ostream* out) {
    *out << "port " << int{transfer.port} << ": type " << int{transfer.request_type} << " request "
         << int{transfer.request} << " value " << transfer.value << " index " << transfer.index << " length "
         << transfer.length << " \"" << std::string(transfer.sent.begin(), transfer.sent.end()) << "\" limit "
         << transfer.timeout;
}

Answer Stall() {
    return {LIBUSB_ERROR_PIPE};
}
Answer Taken(const Transfer& transfer) {
    return {transfer.length};
}
Answer Reply(Bytes data) {
    const int length = static_cast<int>(data.size());
    return {length, std::move(data)};
}
Answer Never() {
    return {kNever};
}

void ResetUsb() {
    const Guard guard(bus.mutex);
    for (const auto& phone : bus.phones)
        phone->gone = true;
    bus.left.notify_all();
    bus.phones.clear();
    bus.init_error = bus.list_error = 0;
    bus.watch = nullptr;
    bus.transfers.clear();
    bus.calls.clear();
    bus.misuse.clear();
    bus.most_contexts = 0;
    bus.contexts.clear();
    bus.handles.clear();
    bus.lists.clear();
    bus.devices.clear();
}

int Plug(FakePhone phone) {
    const Guard guard(bus.mutex);
    bus.phones.push_back(std::make_shared<Phone>(Phone{++bus.names, std::move(phone)}));
    return bus.names;
}

void Unplug(int name) {
    const Guard guard(bus.mutex);
    std::erase_if(bus.phones, [name](const auto& phone) {
        if (phone->name != name) return false;
        phone->gone = true;
        return true;
    });
    bus.left.notify_all();
}

void FailUsbInit(int error) {
    const Guard guard(bus.mutex);
    bus.init_error = error;
}

void FailUsbList(int error) {
    const Guard guard(bus.mutex);
    bus.list_error = error;
}

std::vector<Transfer> Transfers() {
    const Guard guard(bus.mutex);
    return bus.transfers;
}

void ClearTransfers() {
    const Guard guard(bus.mutex);
    bus.transfers.clear();
}

std::vector<std::string> UsbCalls() {
    const Guard guard(bus.mutex);
    return bus.calls;
}

void OnUsbCall(std::function<void(const std::string&)> watch) {
    const Guard guard(bus.mutex);
    bus.watch = std::move(watch);
}

UsbHeld HeldOfUsb() {
    const Guard guard(bus.mutex);
    UsbHeld held{static_cast<int>(bus.contexts.size()), static_cast<int>(bus.handles.size()),
                 static_cast<int>(bus.lists.size()), 0};
    for (const auto& device : bus.devices)
        held.references += device->references;
    return held;
}

int MostUsbContexts() {
    const Guard guard(bus.mutex);
    return static_cast<int>(bus.most_contexts);
}

std::vector<std::string> UsbMisuse() {
    const Guard guard(bus.mutex);
    return bus.misuse;
}

}  // namespace test

using test::bus;
using test::Guard;

extern "C" {

int __wrap_libusb_init(libusb_context** context) {
    test::Called("init");
    const Guard guard(bus.mutex);
    if (bus.init_error) return bus.init_error;
    bus.contexts.push_back(std::make_unique<libusb_context>());
    bus.most_contexts = std::max(bus.most_contexts, bus.contexts.size());
    *context = bus.contexts.back().get();
    return 0;
}

void __wrap_libusb_exit(libusb_context* context) {
    test::Called("exit");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.contexts, context, "exit")) return;
    bus.contexts.erase(test::Find(bus.contexts, context));
    if (bus.contexts.empty() && !bus.handles.empty()) bus.misuse.push_back("exit before close");
    if (bus.contexts.empty() && !bus.lists.empty()) bus.misuse.push_back("exit before free_device_list");
}

ssize_t __wrap_libusb_get_device_list(libusb_context* context, libusb_device*** list) {
    test::Called("get_device_list");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.contexts, context, "get_device_list")) return LIBUSB_ERROR_INVALID_PARAM;
    if (bus.list_error) return bus.list_error;
    auto& listed = bus.lists.emplace_back();
    for (const auto& phone : bus.phones) {
        bus.devices.push_back(std::make_unique<libusb_device>(libusb_device{phone}));
        listed.push_back(bus.devices.back().get());
    }
    listed.push_back(nullptr);
    for (const auto& phone : bus.phones)
        if (phone->is.leaves_when_listed) phone->gone = true;
    std::erase_if(bus.phones, [](const auto& phone) { return phone->gone; });
    *list = listed.data();
    return static_cast<ssize_t>(listed.size() - 1);
}

void __wrap_libusb_free_device_list(libusb_device** list, int unreference) {
    test::Called("free_device_list");
    const Guard guard(bus.mutex);
    const auto found =
        std::find_if(bus.lists.begin(), bus.lists.end(), [list](auto& one) { return one.data() == list; });
    if (found == bus.lists.end()) {
        bus.misuse.push_back("free_device_list of what is not held");
        return;
    }
    if (unreference)
        for (libusb_device* device : *found)
            if (device) test::GiveBack(device);
    bus.lists.erase(found);
}

int __wrap_libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
    test::Called("get_device_descriptor");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.devices, device, "get_device_descriptor")) return LIBUSB_ERROR_INVALID_PARAM;
    if (device->phone->is.descriptor_error) return device->phone->is.descriptor_error;
    descriptor->idVendor = device->phone->is.vid;
    descriptor->idProduct = device->phone->is.pid;
    return 0;
}

std::uint8_t __wrap_libusb_get_port_number(libusb_device* device) {
    test::Called("get_port_number");
    const Guard guard(bus.mutex);
    return test::Known(bus.devices, device, "get_port_number") ? device->phone->is.port : std::uint8_t{0};
}

int __wrap_libusb_open(libusb_device* device, libusb_device_handle** handle) {
    test::Called("open");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.devices, device, "open")) return LIBUSB_ERROR_INVALID_PARAM;
    if (device->phone->gone) return LIBUSB_ERROR_NO_DEVICE;
    if (device->phone->is.open_error) return device->phone->is.open_error;
    ++device->references;
    bus.handles.push_back(std::make_unique<libusb_device_handle>(libusb_device_handle{device}));
    *handle = bus.handles.back().get();
    return 0;
}

void __wrap_libusb_close(libusb_device_handle* handle) {
    test::Called("close");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.handles, handle, "close")) return;
    test::GiveBack(handle->device);
    bus.handles.erase(test::Find(bus.handles, handle));
}

int __wrap_libusb_control_transfer(libusb_device_handle* handle, std::uint8_t type, std::uint8_t request,
                                   std::uint16_t value, std::uint16_t index, unsigned char* data,
                                   std::uint16_t length, unsigned timeout) {
    test::Called("control_transfer");
    std::shared_ptr<Phone> phone;
    test::Transfer transfer{type, request};
    {
        const Guard guard(bus.mutex);
        if (!test::Known(bus.handles, handle, "control_transfer")) return LIBUSB_ERROR_INVALID_PARAM;
        phone = handle->device->phone;
        transfer = test::Described(*phone, type, request, value, index, data, length, timeout);
        if (phone->gone) return LIBUSB_ERROR_NO_DEVICE;
        bus.transfers.push_back(transfer);
    }
    return test::Finish(transfer, phone->is.answer(transfer), phone, data);
}

int __wrap_libusb_reset_device(libusb_device_handle* handle) {
    test::Called("reset_device");
    const Guard guard(bus.mutex);
    if (!test::Known(bus.handles, handle, "reset_device")) return LIBUSB_ERROR_INVALID_PARAM;
    return handle->device->phone->gone ? LIBUSB_ERROR_NOT_FOUND : handle->device->phone->is.reset_result;
}
}
