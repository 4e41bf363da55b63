// One snapshot from the service's status socket.
#pragma once

#include <string>
#include <vector>

namespace ports {

enum E_ASKED {
    ASKED_ANSWERED,
    ASKED_NOBODY,   // the socket cannot be opened, or the answer did not come in time
    ASKED_CUT_OFF,  // the service ended in the middle
    ASKED_STOPPED   // `stop` became readable
};

// The datagrams of the answer, from `<folder>/usb/status`. Waits for each one at most five seconds. With any
// other result than ASKED_ANSWERED `error` says what is wrong. `stop`: a descriptor, or -1.
E_ASKED Ask(const std::string& folder, int stop, std::vector<std::string>* answer, std::string* error);

}  // namespace ports
