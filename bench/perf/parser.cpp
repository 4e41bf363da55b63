// Parses one typical message.
#include <cstdlib>
#include <string>

#include "../Paths.h"
#include "Measured.h"
#include "event/UNetLinkData.h"

namespace {

std::string message = bench::TypicalUevent() + std::string(16, '\0');
dcm::usb::UNetLinkData data;

void Parse(long) {
    data.ParseData(message.data(), static_cast<int>(message.size()) - 16);
}

}  // namespace

int main() {
    if (message.size() != 321 + 16) return EXIT_FAILURE;
    bench::WarmUpAndMeasure(Parse);
}
