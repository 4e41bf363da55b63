#include "Request.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "gmock/gmock.h"
#include "shm/Layout.h"

namespace css {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kCaller = 0x7FFF12345678;  // where the caller has its request
constexpr std::uint64_t kBuffer = 0xFFFF87654320;  // and the buffer
constexpr std::uint64_t kUsb = 4096;
const std::string kText("/data/sharedmemory/shm_usb_cert\0", 32);

// A request as its 40 bytes lie in the caller's memory.
struct RequestBytes {
    std::uint64_t receivers = kUsb;
    std::uint32_t length = 32;
    std::uint32_t size = 512;
    std::uint64_t unused = 0;

    std::string operator()(const std::string& text = "") const {
        std::string bytes(40, '\0');
        std::memcpy(&bytes[0], &unused, 8);
        std::memcpy(&bytes[8], &receivers, 8);
        std::memcpy(&bytes[16], &unused, 8);
        std::memcpy(&bytes[24], &length, 4);
        std::memcpy(&bytes[28], &size, 4);
        std::memcpy(&bytes[32], &kBuffer, 8);
        return bytes + text;
    }
};

Step Ask(const std::string& bytes, unsigned int command = 0) {
    return NextStep(command, kCaller, bytes);
}

void ExpectRefused(const Step& step, int error) {
    EXPECT_EQ(step.kind, STEP_REFUSE);
    EXPECT_EQ(step.error, error);
    EXPECT_THAT(step.pieces, IsEmpty());
    EXPECT_EQ(step.receivers, 0u);
    EXPECT_THAT(step.text, IsEmpty());
}

void ExpectReadsText(const Step& step, std::size_t length) {
    EXPECT_EQ(step.kind, STEP_READ);
    EXPECT_EQ(step.error, 0);
    EXPECT_THAT(step.pieces, ElementsAre(Piece{kCaller, 40}, Piece{kBuffer, length}));
    EXPECT_EQ(step.receivers, 0u);
}

TEST(CssRequest, ReadsTheRequestFirst) {
    const Step step = Ask("");
    EXPECT_EQ(step.kind, STEP_READ);
    EXPECT_EQ(step.error, 0);
    EXPECT_THAT(step.pieces, ElementsAre(Piece{kCaller, 40}));
}

TEST(CssRequest, ThenReadsAsMuchOfTheBufferAsThereIsText) {
    ExpectReadsText(Ask(RequestBytes{}()), 32);
}

TEST(CssRequest, ThenDeliversTheTextWithItsEndToTheReceivers) {
    const std::string bytes = RequestBytes{.receivers = 0x0800000000001000}(kText);
    const Step step = Ask(bytes);
    EXPECT_EQ(step.kind, STEP_DELIVER);
    EXPECT_EQ(step.error, 0);
    EXPECT_EQ(step.receivers, 0x0800000000001000u);
    EXPECT_EQ(std::string(step.text.begin(), step.text.end()), kText);
    EXPECT_THAT(step.pieces, IsEmpty());
}

TEST(CssRequest, KnowsNoOtherCommandWhateverComesWithIt) {
    for (const unsigned int command : {1u, 0x5401u /* is it a terminal? */, 0x80000000u, 0xFFFFFFFFu})
        for (const std::string& bytes : {std::string(), RequestBytes{}(), RequestBytes{}(kText)})
            ExpectRefused(Ask(bytes, command), ENOTTY);
}

TEST(CssRequest, RefusesEveryLengthThatTheBufferDoesNotHold) {
    for (const std::uint32_t size : {0u, 1u, 31u, 512u, 27136u}) {
        const std::uint32_t past = size + 1;
        ExpectRefused(Ask(RequestBytes{.length = past, .size = size}()), EINVAL);
        ExpectRefused(Ask(RequestBytes{.length = 0xFFFFFFFF, .size = size}()), EINVAL);
        ExpectRefused(Ask(RequestBytes{.length = 0, .size = size}()), EINVAL);
        if (size > 0) ExpectReadsText(Ask(RequestBytes{.length = size, .size = size}()), size);
    }
}

TEST(CssRequest, RefusesAboveWhatTheDriverTakesHoweverLargeTheBufferIs) {
    for (const std::uint32_t size : {27136u, 27137u, 0x10000000u, 0xFFFFFFFFu}) {
        ExpectReadsText(Ask(RequestBytes{.length = 27136, .size = size}()), 27136);
        ExpectRefused(Ask(RequestBytes{.length = 27137, .size = size}()), EINVAL);
        ExpectRefused(Ask(RequestBytes{.length = 0xFFFFFFFF, .size = size}()), EINVAL);
    }
}

TEST(CssRequest, RefusesARequestForNobody) {
    ExpectRefused(Ask(RequestBytes{.receivers = 0}()), EINVAL);
    ExpectRefused(Ask(RequestBytes{.receivers = 0}(kText)), EINVAL);
}

TEST(CssRequest, TakesEveryBitAsReceiver) {
    for (int bit = 0; bit < 64; ++bit) {
        const std::string bytes = RequestBytes{.receivers = std::uint64_t{1} << bit}(kText);
        EXPECT_EQ(Ask(bytes).receivers, std::uint64_t{1} << bit);
    }
    const std::string all = RequestBytes{.receivers = ~std::uint64_t{0}}(kText);
    EXPECT_EQ(Ask(all).receivers, ~std::uint64_t{0});
}

TEST(CssRequest, LooksAtNoUnusedField) {
    const std::string bytes = RequestBytes{.unused = ~std::uint64_t{0}}(kText);
    EXPECT_EQ(Ask(bytes).kind, STEP_DELIVER);
    EXPECT_EQ(Ask(bytes).receivers, kUsb);
}

TEST(CssRequest, RefusesPartOfARequest) {
    const std::string whole = RequestBytes{}();
    for (std::size_t count = 1; count < whole.size(); ++count)
        ExpectRefused(Ask(whole.substr(0, count)), EINVAL);
}

TEST(CssRequest, RefusesACallerThatChangesItsRequestWhileItIsRead) {
    ExpectRefused(Ask(RequestBytes{.length = 31}(kText)), EINVAL);
    ExpectRefused(Ask(RequestBytes{.length = 33}(kText)), EINVAL);
    ExpectRefused(Ask(RequestBytes{.length = 27136, .size = 27136}(kText)), EINVAL);
    ExpectRefused(Ask(RequestBytes{.size = 31}(kText)), EINVAL);
    ExpectRefused(Ask(RequestBytes{.length = 0}(kText)), EINVAL);
}

}  // namespace
}  // namespace css
