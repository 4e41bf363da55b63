#include "port/UListPortState.h"

#include "misc/ULog.h"

namespace dcm::usb {

UListPortState::UListPortState() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UListPortState::~UListPortState() {
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

void UListPortState::SetCarplayPort(std::uint8_t port) {
    m_carplay_port = port;
    ULOG(LOG_INFO, "carplay port set %d", port);
}

}  // namespace dcm::usb
