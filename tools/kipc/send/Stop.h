// Ctrl-C and its like, while an answer is awaited: what was made must be taken away first.
#pragma once

#include "UnixSocket.h"

namespace kipcsend {

class Stop {
public:
    Stop();  // from here on the signals wait in Fd()

    int Fd() const { return m_signals.Get(); }
    int Take() const;  // the signal that came, 0: none

    // Ends this process as the signal does when nobody waits for it.
    [[noreturn]] static void EndBy(int signal);

private:
    Descriptor m_signals;
};

}  // namespace kipcsend
