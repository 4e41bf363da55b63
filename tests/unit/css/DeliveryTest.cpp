#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "Outbox.h"
#include "Request.h"
#include "gmock/gmock.h"
#include "unit/platform/Bench.h"

namespace {

using platform::Outbox;
using test::CapturedLog;
using test::Inbox;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint64_t kUsb = 0x1000;
constexpr std::uint64_t kMedia = 0x800000;
constexpr std::uint64_t kTest = 0x40000000000;
constexpr std::uint64_t kDiag = 0x0800000000000000;
constexpr std::uint64_t kNameless = 0x4000;

struct Delivery : ::testing::Test {
    test::KipcFolder folder;
    CapturedLog log;
    std::unique_ptr<Outbox> outbox = std::make_unique<Outbox>("settings", Outbox::HIDDEN);

    std::string PathOf(const std::string& receiver) const {
        return folder.path() + "/" + receiver + "/settings";
    }

    // The whole road of one request without the kernel between.
    void Request(std::uint64_t receivers, const std::string& text) {
        std::string bytes(40, '\0');
        const auto length = static_cast<std::uint32_t>(text.size());
        std::memcpy(&bytes[8], &receivers, 8);
        std::memcpy(&bytes[24], &length, 4);
        std::memcpy(&bytes[28], &length, 4);
        bytes += text;
        const css::Step step = css::NextStep(0, 0, bytes);
        ASSERT_EQ(step.kind, css::STEP_DELIVER);
        outbox->Send(step.receivers, length, step.text.data());
    }
};

TEST_F(Delivery, EachReceiverHasAnInboxForSettingsUnderItsNameOrItsBit) {
    const std::pair<std::uint64_t, const char*> receivers[] = {
        {kUsb, "usb"},
        {0x200, "voltage"},
        {kMedia, "media"},
        {0x2000000, "navi"},
        {0x4000000000, "speech"},
        {kTest, "test"},
        {kDiag, "diag"},
        {kNameless, "0000000000004000"},
        {0x1, "0000000000000001"},
        {0x8000000000000000, "8000000000000000"},
    };
    for (const auto& [mask, name] : receivers) {
        Inbox inbox(PathOf(name));
        Request(mask, name);
        EXPECT_EQ(inbox.Receive(), name);
    }
}

TEST_F(Delivery, TextComesWithItsEndAndWhateverElseStandsInIt) {
    Inbox usb(PathOf("usb"));
    std::string longest(27136, 'x');
    longest.back() = '\0';
    for (const std::string& text :
         {std::string("/data/sharedmemory/shm_usb_cert\0", 32), std::string("\0", 1), longest}) {
        Request(kUsb, text);
        EXPECT_EQ(usb.Receive(), text);
    }
}

TEST_F(Delivery, TextReachesEveryReceiverWhoseBitIsSetAndNobodyElse) {
    Inbox usb(PathOf("usb"));
    Inbox diag(PathOf("diag"));
    Inbox nameless(PathOf("0000000000004000"));
    Inbox media(PathOf("media"));
    Request(kUsb | kDiag | kNameless, "text");
    EXPECT_EQ(usb.Receive(), "text");
    EXPECT_EQ(diag.Receive(), "text");
    EXPECT_EQ(nameless.Receive(), "text");
    EXPECT_FALSE(media.HasMore(0));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(Delivery, AbsentReceiverCostsTheOthersNothingAndIsSaidOnce) {
    Inbox usb(PathOf("usb"));
    Inbox diag(PathOf("diag"));
    for (int i = 0; i < 50; ++i) {
        Request(kUsb | kMedia | kDiag, std::to_string(i));
        EXPECT_EQ(usb.Receive(), std::to_string(i));
        EXPECT_EQ(diag.Receive(), std::to_string(i));
    }
    // Texts leave receiver by receiver in the order of their bits: after a lower one and then a higher one,
    // the fate of what was sent to media is known.
    for (Inbox* fence : {&usb, &diag}) {
        Request(fence == &usb ? kUsb : kDiag, "fence");
        EXPECT_EQ(fence->Receive(), "fence");
    }
    EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("media is not there, packets to it are lost: " +
                                                   PathOf("media") + ": No such file or directory")));
    Inbox media(PathOf("media"));
    Request(kMedia, "kept");
    EXPECT_EQ(media.Receive(), "kept");
    EXPECT_TRUE(log.WaitFor("media lost 50 packets and takes them again"));
}

TEST_F(Delivery, ReceiverThatWasRestartedHearsTheNextText) {
    auto usb = std::make_unique<Inbox>(PathOf("usb"));
    Request(kUsb, "before");
    EXPECT_EQ(usb->Receive(), "before");
    usb.reset();
    usb = std::make_unique<Inbox>(PathOf("usb"));
    Request(kUsb, "after");
    EXPECT_EQ(usb->Receive(), "after");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(Delivery, ReceiverThatDoesNotReadHoldsNobodyUpAndHearsWhatFits) {
    Inbox sleeper(PathOf("usb"));
    Inbox media(PathOf("media"));
    const std::string longest(27136, 'x');
    Request(kUsb, "first");
    sleeper.Accept();
    for (int i = 0; i < 400; ++i) {  // ten times what may wait for one receiver
        Request(kUsb, longest);
        Request(kMedia, std::to_string(i));
        ASSERT_EQ(media.Receive(), std::to_string(i));
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("usb does not read: its backlog is full, packets to it are lost")));
    EXPECT_EQ(sleeper.Receive(), "first");
    int heard = 0;
    EXPECT_TRUE(test::Eventually([&] {
        for (; sleeper.HasMore(0); ++heard)
            EXPECT_EQ(sleeper.Receive(), longest);
        return !log.LinesWith("packets and takes them again").empty();
    }));
    EXPECT_GT(heard, 30);
    EXPECT_LT(heard, 400);
}

TEST_F(Delivery, ReceiverThatListensButDoesNotAcceptHoldsNobodyUp) {
    Inbox deaf(PathOf("usb"), 0);
    test::Peer first(PathOf("usb"));  // the queue of connections is full
    Inbox media(PathOf("media"));
    for (int i = 0; i < 20; ++i) {
        Request(kUsb | kMedia, std::to_string(i));
        ASSERT_EQ(media.Receive(), std::to_string(i));
    }
}

TEST_F(Delivery, SeveralWritersAtOnceKeepTheirOwnOrder) {
    Inbox usb(PathOf("usb"));
    std::vector<std::thread> writers;
    for (char writer = 0; writer < 4; ++writer)
        writers.emplace_back([this, writer] {
            for (int i = 0; i < 50; ++i)
                Request(kUsb, std::string(1, writer) + std::to_string(i));
        });
    int next[4] = {};
    for (int i = 0; i < 200; ++i) {
        const std::string text = usb.Receive();
        ASSERT_FALSE(text.empty());
        ASSERT_EQ(text.substr(1), std::to_string(next[static_cast<int>(text[0])]++));
    }
    for (std::thread& writer : writers)
        writer.join();
}

TEST_F(Delivery, WhatWasTakenBeforeTheEndIsStillDelivered) {
    Inbox usb(PathOf("usb"));
    for (int i = 0; i < 20; ++i)
        Request(kUsb, std::to_string(i));
    outbox.reset();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(usb.Receive(), std::to_string(i));
    EXPECT_EQ(usb.Receive(), "");
}

// What the service sends and receives is what a tap is there for.
TEST_F(Delivery, StaysOffTheTap) {
    Inbox tap(folder.path() + "/tap");
    Inbox usb(PathOf("usb"));
    for (int i = 0; i < 3; ++i) {
        Request(kUsb | kMedia, "text");
        EXPECT_EQ(usb.Receive(), "text");
    }
    outbox.reset();
    EXPECT_FALSE(tap.HasMore(0));
}

}  // namespace
