// All port states: one per USB port that was ever seen. Owns them and leads each message to the one of its
// port. Command frame's thread only; the lock makes look-ups from elsewhere safe.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <vector>

#include "misc/USingleton.h"

namespace dcm::usb {

class UNotifier;
class UPortState;

// The port logic is not there yet: no port state can be made, and the command frame refuses the messages that
// need one.
class UListPortState : public USingleton<UListPortState> {
public:
    UListPortState();
    ~UListPortState() override;

    // The command frame's notifier, for the states. It outlives the list.
    void SetNotifier(UNotifier* notifier) { m_notifier = notifier; }

    // Where CarPlay was last started (units digit): a tty event belongs to that port, whatever it says
    // itself.
    void SetCarplayPort(std::uint8_t port);

private:
    std::uint8_t m_carplay_port = 0;
    UNotifier* m_notifier = nullptr;        // not owned
    std::vector<UPortState*> m_port_lists;  // in order of first sight
    pthread_mutex_t m_mutex;                // guards m_port_lists
};

}  // namespace dcm::usb
