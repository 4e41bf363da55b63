// One request and its answer, as the peer would see them.
#pragma once

#include "ExitCode.h"
#include "Options.h"
#include "Request.h"

namespace kipcsend {

class Inbox;
class ServiceSocket;
class Stop;

class Exchange {
public:
    Exchange(const Options& options, const Request& request) : m_options(options), m_request(request) {}

    // Shows what comes. The result is one of E_EXIT, or EXIT_SIGNAL plus a signal's number.
    int Run();

private:
    int SendOnly(ServiceSocket& service);
    int SendAndWait(ServiceSocket& service, const Stop& stop);
    int Wait(ServiceSocket& service, Inbox& inbox, const Stop& stop);
    bool TakeAnswers(Inbox& inbox);
    int Result() const;
    void ShowRequest() const;
    void Print(const Passed& passed) const;
    std::chrono::milliseconds Timeout() const;

    const Options& m_options;
    const Request& m_request;
    std::chrono::steady_clock::time_point m_end;
    unsigned m_answers = 0;
    bool m_succeeded = true;
};

}  // namespace kipcsend
