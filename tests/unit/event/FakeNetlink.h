// The kernel's netlink socket as a reader sees it: messages wait in it, select blocks on it, any call can
// fail.
#pragma once

#include <deque>
#include <string>
#include <vector>

namespace test {

struct FakeNetlink {
    bool active = false;  // otherwise all calls go to the real kernel

    // What the next calls do; an error number makes the call fail.
    int descriptor = 7;
    int socket_error = 0;
    int setsockopt_error = 0;
    int bind_error = 0;
    int select_error = 0;
    bool select_marks_nothing = false;
    int recv_error = 0;
    std::deque<std::string> messages;

    // What happened, one text a call.
    std::vector<std::string> calls;
    bool buffer_was_zero = false;  // at the last recv

    void Send(const std::string& message) { messages.push_back(message); }
};

extern FakeNetlink netlink;

}  // namespace test
