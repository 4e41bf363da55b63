// One message of the netlink socket: the fast parser finds what a walk byte by byte finds, and no getter
// reads behind the buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "event/UNetLinkData.h"
#include "unit/event/Walk.h"

namespace {

using dcm::usb::UNetLinkData;

constexpr std::size_t kZerosBehind = 16;

void AskEverything(UNetLinkData& data) {
    unsigned short vendor = 0;
    unsigned short product = 0;
    data.GetAction();
    data.GetSubSystem();
    data.GetUsbDevType();
    data.GetBlockDevType();
    data.GetProduct(&vendor, &product);
    data.GetCustomEvent();
    data.GetCustomEventPort();
    data.GetEnumerate();
    data.PrintData(true);
    data.PrintData(false);
}

void ParseBoth(UNetLinkData& data, char* buffer, int length) {
    data.ParseData(buffer, length);
    if (length == 0) return;  // refused: the message before stays
    if (test::ValuesOf(data) != test::WalkByteByByte(buffer, length)) std::abort();
    AskEverything(data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    // Exactly as large as the reader's promise, so that one byte too many is found.
    const std::unique_ptr<char[]> buffer(new char[size + kZerosBehind]());
    if (size > 0) std::memcpy(buffer.get(), bytes, size);

    UNetLinkData data;
    const int length = static_cast<int>(size);
    ParseBoth(data, buffer.get(), length);
    // The same with less said to have come, so that a key reaches over the end; and with nonsense.
    if (size > 0) ParseBoth(data, buffer.get(), length - bytes[size - 1] % length);
    ParseBoth(data, buffer.get(), -1);
    return 0;
}
