#include "event/UDev.h"

#include <libudev.h>

#include <cstring>
#include <memory>

#include "misc/ULog.h"
#include "node/UListNode.h"

namespace dcm::usb {
namespace {

struct Release {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_enumerate* devices) const { udev_enumerate_unref(devices); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
};

}  // namespace

UDev::UDev(UNotifier* notifier) : m_lists(USingleton<UListNode>::GetInstance()), m_notifier(notifier) {}

void UDev::ScanDevices() {
    const std::unique_ptr<udev, Release> context(udev_new());
    if (!context) {
        ULOG(LOG_FAILED, "can't create udev");
        return;
    }
    const std::unique_ptr<udev_enumerate, Release> devices(udev_enumerate_new(context.get()));
    if (!devices) {
        ULOG(LOG_FAILED, "failed to udev_enumerate_new");
        return;
    }
    if (udev_enumerate_add_match_subsystem(devices.get(), "usb") < 0) {
        ULOG(LOG_FAILED, "failed to udev_enumerate_add_match_subsystem(usb)");
        return;
    }
    if (udev_enumerate_add_match_subsystem(devices.get(), "block") < 0) {
        ULOG(LOG_FAILED, "failed to udev_enumerate_add_match_subsystem(block)");
        return;
    }
    // What was found before a failure is in the list all the same.
    if (udev_enumerate_scan_devices(devices.get()) < 0)
        ULOG(LOG_FAILED, "failed to udev_enumerate_scan_devices");
    for (udev_list_entry* entry = udev_enumerate_get_list_entry(devices.get()); entry;
         entry = udev_list_entry_get_next(entry))
        ScanDevice(context.get(), udev_list_entry_get_name(entry));
}

void UDev::ScanDevice(udev* context, const char* syspath) {
    if (!syspath) {
        ULOG(LOG_FAILED, "name is null");
        return;
    }
    const std::unique_ptr<udev_device, Release> device(udev_device_new_from_syspath(context, syspath));
    if (!device) {
        ULOG(LOG_FAILED, "dev is null");
        return;
    }
    m_data.ParseDevice(device.get());
    ProcessDevData();
}

void UDev::ProcessDevData() {
    if (!m_lists || !m_notifier) {
        ULOG(LOG_FAILED, "lists(%p) notifier(%p) is null", static_cast<void*>(m_lists),
             static_cast<void*>(m_notifier));
        return;
    }
    if (!IsUsbBased()) return;
    UNode* node = m_lists->InsertNode(m_data.GetSubSystem(), m_data.GetDevPath(), m_notifier);
    if (!node) return;
    m_data.PrintData(true);
    node->ActionAdd(&m_data);
}

bool UDev::IsUsbBased() {
    const char* devpath = m_data.GetDevPath();
    return devpath && std::strstr(devpath, "usb");
}

}  // namespace dcm::usb
