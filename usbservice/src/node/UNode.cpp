#include "node/UNode.h"

#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {

UNode::UNode(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : m_subsystem(subsystem), m_devpath(UString::CreateString(devpath)), m_notifier(notifier) {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
}

UNode::~UNode() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    UString::DestroyString(&m_devpath);
}

void UNode::ActionAdd(UEventData* event) {
    ULOG(LOG_TRACE, "%p", static_cast<void*>(event));
}

void UNode::ActionChange(UEventData* event) {
    ULOG(LOG_TRACE, "%p", static_cast<void*>(event));
}

}  // namespace dcm::usb
