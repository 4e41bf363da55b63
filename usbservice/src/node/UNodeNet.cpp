#include "node/UNodeNet.h"

#include "misc/ULog.h"

namespace dcm::usb {

UNodeNet::UNodeNet(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : UNode(subsystem, devpath, notifier) {}

void UNodeNet::ActionAdd(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    event->PrintData(false);
    m_port.UpdatePort(m_devpath);
}

}  // namespace dcm::usb
