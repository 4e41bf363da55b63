// kipcsend: speaks to the USB service as one of its peers would, and shows the answer.
#include <cstdio>

#include "CommandLine.h"
#include "Exchange.h"
#include "Plugged.h"
#include "Stop.h"

namespace {

using namespace kipcsend;

bool WriteStore(const Order& order) {
    if (const auto* change = std::get_if<SwitchChange>(&order.change)) {
        dcm::usb::StShmUsbCert written;
        if (!WriteSwitches(*change, &written)) return false;
        if (order.options.format == FORMAT_TEXT) std::printf("written: %s\n", TextOf(written).c_str());
    }
    if (const auto* change = std::get_if<HubChange>(&order.change)) {
        if (!WriteCustomerHub(*change)) return false;
        if (order.options.format == FORMAT_TEXT)
            std::printf("written: customer-hub=%u\n", change->customer_hub_support);
    }
    return true;
}

// False: the service does not say what was not given; `result` is how to end.
bool Complete(Order* order, int* result) {
    if (!order->incomplete) return true;
    Plugged plugged(order->options.root);
    if (!plugged.FillIn(&order->incomplete->phone)) {
        Complain(plugged.Problem());
        *result = plugged.WasReached() ? EXIT_USAGE : EXIT_UNREACHABLE;
        return false;
    }
    try {
        order->request = AskForMode(*order->incomplete->mode, order->incomplete->phone);
        return true;
    } catch (const BadValue& error) {
        Complain("what the service tells of the phone fits no request: " + std::string(error.what()));
        *result = EXIT_UNREACHABLE;
        return false;
    }
}

}  // namespace

int main(int count, char** words) {
    auto parsed = ParseCommandLine(count, words);
    if (const int* end = std::get_if<int>(&parsed)) return *end;
    Order& order = std::get<Order>(parsed);
    int result = EXIT_DONE;
    if (!Complete(&order, &result)) return result;
    if (!order.options.dry_run && !WriteStore(order)) {
        Complain("the settings store was not written; nothing was sent");
        return EXIT_UNREACHABLE;
    }
    result = Exchange(order.options, order.request).Run();
    if (result > EXIT_SIGNAL) Stop::EndBy(result - EXIT_SIGNAL);
    return result;
}
