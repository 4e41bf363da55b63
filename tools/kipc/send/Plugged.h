// What the service shows to be plugged in, from its status socket `<root>/usb/status`: so that a request can
// name a phone by its port alone.
#pragma once

#include <string>

#include "Request.h"

namespace kipcsend {

class Plugged {
public:
    explicit Plugged(std::string root) : m_root(std::move(root)) {}

    // Fills in what is empty, from the phone at the phone's port. False: Problem() says why.
    bool FillIn(Phone* phone);
    const std::string& Problem() const { return m_problem; }
    bool WasReached() const { return m_reached; }

private:
    bool Fail(const std::string& problem);

    const std::string m_root;
    std::string m_problem;
    bool m_reached = false;
};

}  // namespace kipcsend
