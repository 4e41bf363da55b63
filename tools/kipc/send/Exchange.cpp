#include "Exchange.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>

#include "Inbox.h"
#include "ServiceSocket.h"
#include "Stop.h"

namespace kipcsend {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTaken{2000};      // the service reads at once, whatever else it does
constexpr milliseconds kNextAnswer{300};  // answers to one search leave together

std::string Seconds(milliseconds time) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", static_cast<double>(time.count()) / 1000);
    return text;
}

}  // namespace

milliseconds Exchange::Timeout() const {
    return m_options.timeout.value_or(m_request.answer.timeout);
}

int Exchange::Run() {
    if (m_options.verbose || m_options.dry_run) ShowRequest();
    if (m_options.dry_run) return EXIT_DONE;
    const Stop stop;
    ServiceSocket service(m_options.root, m_request.sender);
    if (!service.Connect()) {
        Complain(service.Problem());
        return EXIT_UNREACHABLE;
    }
    if (m_request.answer.kind == ANSWER_NONE || Timeout() <= milliseconds::zero()) return SendOnly(service);
    return SendAndWait(service, stop);
}

int Exchange::SendOnly(ServiceSocket& service) {
    if (!service.Send(m_request.bytes) || !service.WaitUntilTaken(kTaken)) {
        Complain(service.Problem());
        return EXIT_UNREACHABLE;
    }
    if (m_options.format == FORMAT_TEXT)
        std::puts(m_request.answer.kind == ANSWER_NONE ? "sent; the service answers nothing to it"
                                                       : "sent; no answer is awaited");
    return EXIT_DONE;
}

int Exchange::SendAndWait(ServiceSocket& service, const Stop& stop) {
    Inbox inbox(m_options.root, m_request.sender);  // before the request: the answer may be quick
    const Inbox::E_STATE state = inbox.Open();
    if (state != Inbox::OURS) {
        if (state == Inbox::THEIRS)
            Complain(m_request.sender +
                     " itself is running: the answer goes there. See it with: kipcmon --receiver " +
                     m_request.sender);
        else
            Complain(inbox.Problem() + "; the answer will not be heard");
        const int result = SendOnly(service);
        return result == EXIT_DONE ? EXIT_UNHEARD : result;
    }
    m_end = steady_clock::now() + Timeout();
    if (!service.Send(m_request.bytes)) {
        Complain(service.Problem());
        return EXIT_UNREACHABLE;
    }
    return Wait(service, inbox, stop);
}

int Exchange::Wait(ServiceSocket& service, Inbox& inbox, const Stop& stop) {
    for (;;) {
        const milliseconds left = duration_cast<milliseconds>(m_end - steady_clock::now());
        std::vector<pollfd> waits = {{stop.Fd(), POLLIN, 0}, {service.Fd(), POLLIN, 0}};
        inbox.AddTo(&waits);
        poll(waits.data(), waits.size(), static_cast<int>(std::max(left, milliseconds::zero()).count() + 1));
        if (TakeAnswers(inbox)) return Result();
        if (const int signal = stop.Take()) return EXIT_SIGNAL + signal;
        if (waits[1].revents != 0) {
            if (m_answers > 0) return Result();
            const bool is_read = service.WhyClosed() == ServiceSocket::END_READ_ALL;
            Complain(is_read
                         ? "the service ended before it answered"
                         : "the service ended, or turned the connection away, before it read the request");
            return is_read ? EXIT_NO_ANSWER : EXIT_UNREACHABLE;
        }
        if (steady_clock::now() < m_end) continue;
        if (m_answers > 0) return Result();
        Complain("no answer within " + Seconds(Timeout()));
        return EXIT_NO_ANSWER;
    }
}

// True: no further answer can come.
bool Exchange::TakeAnswers(Inbox& inbox) {
    while (const auto bytes = inbox.Receive()) {
        Passed passed{FROM_SERVICE, m_request.sender, *bytes};
        const records::Record* record = DescriptionOf(passed);
        passed.is_answer = IsAnswer(m_request.answer, record, *bytes);
        Print(passed);
        if (passed.is_answer) {
            m_succeeded = !record || IsSuccess(m_request.answer, *record, *bytes);
            if (++m_answers >= m_request.answer.most) return true;
            if (m_request.answer.kind == ANSWER_COMES)
                m_end = std::min(m_end, steady_clock::now() + kNextAnswer);
        }
        if (steady_clock::now() >= m_end) return false;  // whoever sends without end
    }
    return false;
}

int Exchange::Result() const {
    return m_succeeded ? EXIT_DONE : EXIT_REFUSED;
}

void Exchange::ShowRequest() const {
    const Passed passed{TO_SERVICE, m_request.sender, m_request.bytes};
    Print(passed);
    if (m_options.format == FORMAT_TEXT) std::fputs(HexLines(m_request.bytes).c_str(), stdout);
}

void Exchange::Print(const Passed& passed) const {
    std::puts((m_options.format == FORMAT_JSON ? JsonOf(passed) : TextOf(passed)).c_str());
    std::fflush(stdout);
}

}  // namespace kipcsend
