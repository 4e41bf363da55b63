// How kipcsend ends: scripts ask for these numbers.
#pragma once

namespace kipcsend {

enum E_EXIT {
    EXIT_DONE = 0,         // answered with success; or taken by the service, which answers nothing to it
    EXIT_REFUSED = 1,      // answered with failure
    EXIT_USAGE = 2,        // the command line is wrong: nothing was sent
    EXIT_NO_ANSWER = 3,    // sent, and the answer did not come
    EXIT_UNREACHABLE = 4,  // not sent, or not taken by the service
    EXIT_UNHEARD = 5,      // sent; the answer goes elsewhere
    EXIT_SIGNAL = 128,     // plus the number of the signal that ended the waiting
};

}  // namespace kipcsend
