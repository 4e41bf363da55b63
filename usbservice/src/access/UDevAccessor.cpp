#include "access/UDevAccessor.h"

#include "misc/ULog.h"

namespace dcm::usb {

UDevAccessor::UDevAccessor() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UDevAccessor::~UDevAccessor() {
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

}  // namespace dcm::usb
