#include "platform/kipc.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "Bench.h"
#include "gmock/gmock.h"
#include "platform/tap.h"

namespace {

// The writer thread is held up while it reads its wake-up, when a test wants it.
std::atomic<bool> g_hold_writer{false};
std::atomic<int> g_held{-1};  // the descriptor that it reads meanwhile
constexpr std::chrono::milliseconds kHold{50};

bool IsWriter() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::strcmp(name, "kipc-writer") == 0;
}

}  // namespace

extern "C" {
ssize_t __real_read(int fd, void* bytes, std::size_t count);
ssize_t __wrap_read(int fd, void* bytes, std::size_t count) {
    const ssize_t result = __real_read(fd, bytes, count);
    if (!g_hold_writer || !IsWriter()) return result;
    g_held = fd;
    std::this_thread::sleep_for(kHold);
    g_held = -1;
    return result;
}
}

namespace {

using kipc::Interface;
using test::CapturedLog;
using test::Inbox;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr unsigned long kMedia = 0x800000;
constexpr unsigned long kTest = 0x40000000000;

void Send(const Interface& interface, unsigned long dest, std::string record) {
    interface.send_pkt(dest, static_cast<unsigned int>(record.size()), record.data());
}

struct Kipc : ::testing::Test {
    test::KipcFolder folder;
    CapturedLog log;
    std::unique_ptr<Interface> interface = std::make_unique<Interface>();

    std::string PathOf(const std::string& receiver) const { return folder.path() + "/" + receiver + "/usb"; }

    // Records leave receiver by receiver in the order of their bits: when the fence has come, the fate of
    // what was sent before to a lower bit is known.
    void Fence(Inbox* fence) {
        Send(*interface, kTest, "fence");
        ASSERT_EQ(fence->Receive(), "fence");
    }
};

TEST_F(Kipc, EachReceiverHasAnInboxUnderItsNameOrItsBit) {
    const std::pair<unsigned long, const char*> receivers[] = {
        {0x200, "voltage"},           {0x800000, "media"},
        {0x2000000, "navi"},          {0x4000000000, "speech"},
        {0x40000000000, "test"},      {0x0800000000000000, "diag"},
        {0x4000, "0000000000004000"}, {0x200000000000, "0000200000000000"},
        {0x1, "0000000000000001"},    {0x8000000000000000, "8000000000000000"},
    };
    for (const auto& [mask, name] : receivers) {
        Inbox inbox(PathOf(name));
        Send(*interface, mask, name);
        EXPECT_EQ(inbox.Receive(), name);
    }
}

TEST_F(Kipc, PacketReachesEveryReceiverWhoseBitIsSetAndNobodyElse) {
    Inbox media(PathOf("media"));
    Inbox speech(PathOf("speech"));
    Inbox navi(PathOf("navi"));
    Send(*interface, 0x0000004000800000, "usb packet");
    EXPECT_EQ(media.Receive(), "usb packet");
    EXPECT_EQ(speech.Receive(), "usb packet");
    EXPECT_FALSE(navi.HasMore(0));
}

TEST_F(Kipc, RecordArrivesByteForByte) {
    Inbox media(PathOf("media"));
    for (std::size_t length : {1u, 12u, 136u, 360u, 4097u, 65536u}) {
        std::string record(length, '\0');
        for (std::size_t i = 0; i < length; ++i)
            record[i] = static_cast<char>(i * 7 + length);
        Send(*interface, kMedia, record);
        EXPECT_EQ(media.Receive(), record) << length;
    }
}

TEST_F(Kipc, RefusesAnEmptyAnOverlongAndAMissingRecord) {
    Inbox media(PathOf("media"));
    Send(*interface, kMedia, "");
    Send(*interface, kMedia, std::string(65537, 'x'));
    interface->send_pkt(kMedia, 4, nullptr);
    EXPECT_THAT(log.LinesWith("no packet of"), SizeIs(3));
    Send(*interface, kMedia, "good");
    EXPECT_EQ(media.Receive(), "good");
}

TEST_F(Kipc, RecordsArriveInTheOrderTheyWereSent) {
    Inbox media(PathOf("media"));
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 200; ++i)
            Send(*interface, kMedia, std::to_string(round * 200 + i));
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(media.Receive(), std::to_string(round * 200 + i));
    }
}

TEST_F(Kipc, SendersOnSeveralThreadsKeepTheirOwnOrder) {
    Inbox media(PathOf("media"));
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender)
        senders.emplace_back([this, sender] {
            for (int i = 0; i < 50; ++i)
                Send(*interface, kMedia, std::string(1, static_cast<char>(sender)) + std::to_string(i));
        });
    int next[4] = {};
    for (int i = 0; i < 200; ++i) {
        const std::string record = media.Receive();
        ASSERT_EQ(record.substr(1), std::to_string(next[static_cast<int>(record[0])]++));
    }
    for (std::thread& sender : senders)
        sender.join();
}

TEST_F(Kipc, AbsentReceiverLosesItsPacketsCountedAndLoggedOncePerBurst) {
    Inbox fence(PathOf("test"));
    for (int burst = 0; burst < 2; ++burst) {
        for (int i = 0; i < 5; ++i)
            Send(*interface, kMedia, "lost");
        Fence(&fence);
        Inbox media(PathOf("media"));
        Send(*interface, kMedia, "kept");
        EXPECT_EQ(media.Receive(), "kept");
        EXPECT_TRUE(test::Eventually([&] { return log.Lines().size() == 2u * (burst + 1); }));
        unlink(PathOf("media").c_str());
    }
    EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("media is not there, packets to it are lost: "),
                                         EndsWith("media lost 5 packets and takes them again"),
                                         HasSubstr("media is not there, packets to it are lost: "),
                                         EndsWith("media lost 5 packets and takes them again")));
}

TEST_F(Kipc, SocketThatNobodyListensOnCountsAsAbsent) {
    Inbox fence(PathOf("test"));
    { Inbox died(PathOf("media")); }
    Send(*interface, kMedia, "lost");
    Fence(&fence);
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("Connection refused")));
}

TEST_F(Kipc, ReceiverThatDiesAndComesBackGetsTheNextRecord) {
    auto media = std::make_unique<Inbox>(PathOf("media"));
    Inbox fence(PathOf("test"));
    Send(*interface, kMedia, "one");
    EXPECT_EQ(media->Receive(), "one");
    media.reset();
    Send(*interface, kMedia, "two");  // finds nobody
    Fence(&fence);
    media = std::make_unique<Inbox>(PathOf("media"));
    Send(*interface, kMedia, "three");
    EXPECT_EQ(media->Receive(), "three");
}

TEST_F(Kipc, ReceiverThatIsRestartedBetweenTwoRecordsLosesNone) {
    for (int run = 0; run < 5; ++run) {
        Inbox media(PathOf("media"));
        Send(*interface, kMedia, std::to_string(run));
        EXPECT_EQ(media.Receive(), std::to_string(run));
    }
    EXPECT_THAT(log.Lines(), SizeIs(0));
}

TEST_F(Kipc, ReceiverThatDiesWithAFullSocketCostsOnlyItsOwnRecords) {
    Inbox fence(PathOf("test"));
    {
        Inbox media(PathOf("media"));
        for (int i = 0; i < 1000; ++i)
            Send(*interface, kMedia, std::string(360, 'x'));
        media.Accept();
        Fence(&fence);
    }
    Fence(&fence);
    Inbox media(PathOf("media"));
    EXPECT_TRUE(test::Eventually([&] {
        Send(*interface, kMedia, "after");  // may still find the backlog full
        while (media.HasMore(1)) {
            const std::string record = media.Receive();
            if (record == "after") return true;
            EXPECT_EQ(record, std::string(360, 'x'));  // of the backlog
        }
        return false;
    }));
}

TEST_F(Kipc, ReceiverThatNeverReadsLosesTheNewestAndTheOthersGetEverything) {
    Inbox media(PathOf("media"));
    Inbox reader(PathOf("test"));
    constexpr unsigned kCount = 4000;
    for (unsigned i = 0; i < kCount; i += 100) {
        for (unsigned k = i; k < i + 100; ++k)
            Send(*interface, kMedia | kTest, std::to_string(k) + std::string(360, 'x'));
        for (unsigned k = i; k < i + 100; ++k)
            ASSERT_EQ(reader.Receive(), std::to_string(k) + std::string(360, 'x'));
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("media does not read: its backlog is full, packets to it are lost")));

    media.Accept();
    // As much as makes the kernel say that there is room again; it keeps some 160 of these records.
    for (int i = 0; i < 150; ++i)
        ASSERT_EQ(media.Receive(), std::to_string(i) + std::string(360, 'x'));
    for (unsigned k = kCount; k < kCount + 400; ++k)  // it reads, but is still far behind: the same burst
        Send(*interface, kMedia, std::to_string(k) + std::string(360, 'x'));
    unsigned received = 150;
    unsigned long last = 149;
    for (; media.HasMore(received < 256 ? 5000 : 200); ++received) {
        const unsigned long number = std::stoul(media.Receive());
        ASSERT_GT(number, last);
        last = number;
    }
    EXPECT_GE(received, 256u);
    Send(*interface, kMedia, "again");
    EXPECT_EQ(media.Receive(), "again");
    EXPECT_TRUE(log.WaitFor("media lost " + std::to_string(kCount + 400 - received) +
                            " packets and takes them again"));
    EXPECT_THAT(log.Lines(), SizeIs(2));
}

TEST_F(Kipc, ReceiverThatIsSlowToAcceptGetsItsRecordWithoutAnotherOne) {
    Inbox media(PathOf("media"), 0);
    std::vector<std::unique_ptr<test::Peer>> crowd;  // fills the line of those who wait to be accepted
    crowd.push_back(std::make_unique<test::Peer>(PathOf("media")));
    ASSERT_TRUE(crowd.back()->connected());
    Send(*interface, kMedia, "patient");
    Inbox fence(PathOf("test"));
    Fence(&fence);
    media.Accept();  // the crowd
    media.Accept();  // and now the service
    EXPECT_EQ(media.Receive(), "patient");
    EXPECT_THAT(log.Lines(), SizeIs(0));
}

TEST_F(Kipc, WhatWasSentBeforeTheEndStillArrives) {
    Inbox media(PathOf("media"));
    for (int i = 0; i < 100; ++i)
        Send(*interface, kMedia, std::to_string(i));
    interface.reset();
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(media.Receive(), std::to_string(i));
    EXPECT_EQ(media.Receive(), "");  // the end
}

TEST_F(Kipc, EndsWhenItsWriterIsJustBeingWoken) {
    Inbox media(PathOf("media"));
    g_hold_writer = true;
    Send(*interface, kMedia, "last");
    ASSERT_TRUE(test::Eventually([] { return g_held >= 0; }));
    const int held = g_held;
    g_hold_writer = false;
    std::atomic<bool> ended{false};
    std::thread ending([&] {
        interface.reset();
        ended = true;
    });
    EXPECT_TRUE(test::Eventually([&] { return ended.load(); })) << "the writer sleeps, and is waited for";
    const std::uint64_t one = 1;
    if (!ended) {  // or this test would never end
        EXPECT_EQ(write(held, &one, sizeof one), 8);
    }
    ending.join();
    EXPECT_EQ(media.Receive(), "last");
}

TEST_F(Kipc, EndsWhileAReceiverIsStuck) {
    Inbox media(PathOf("media"));
    for (int i = 0; i < 1000; ++i)
        Send(*interface, kMedia, std::string(360, 'x'));
    interface.reset();
    EXPECT_TRUE(media.HasMore(0));
}

TEST_F(Kipc, FolderWithATooLongPathLosesPacketsAndSaysWhy) {
    interface.reset();
    setenv("KIPC_DIR", (folder.path() + "/" + std::string(120, 'x')).c_str(), 1);
    interface = std::make_unique<Interface>();
    Send(*interface, kMedia, "lost");
    EXPECT_TRUE(log.WaitFor("File name too long"));
}

TEST_F(Kipc, AllocatesNothingPerRecordOnceWarm) {
    Inbox media(PathOf("media"));
    std::string record(360, 'x');
    char bytes[512];
    const auto round = [&] {
        for (int i = 0; i < 50; ++i)
            interface->send_pkt(kMedia, 360, record.data());
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(recv(media.connection(), bytes, sizeof bytes, 0), 360);
    };
    for (int i = 0; i < 1000; ++i)
        interface->send_pkt(kMedia, 360, record.data());  // until the backlog is full: it grows no more
    for (media.Accept(); media.HasMore(200);)
        ASSERT_EQ(recv(media.connection(), bytes, sizeof bytes, 0), 360);
    round();
    const unsigned long before = test::g_allocations;
    for (int i = 0; i < 20; ++i)
        round();
    EXPECT_EQ(test::g_allocations - before, 0u);
}

TEST_F(Kipc, SleepsWithoutATimerWhenNothingWaits) {
    Inbox fence(PathOf("test"));
    Send(*interface, kMedia, "lost");  // absent, as the tap is
    Fence(&fence);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it falls asleep
    const long before = test::CostOf("kipc-writer").sleeps;
    ASSERT_GT(before, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(test::CostOf("kipc-writer").sleeps, before);
}

TEST_F(Kipc, LeavesNoDescriptorBehind) {
    const std::size_t before = test::OpenDescriptors();
    for (int run = 0; run < 10; ++run) {
        Inbox media(PathOf("media"));
        Send(*interface, kMedia, "x");
        EXPECT_EQ(media.Receive(), "x");
    }
    EXPECT_TRUE(test::Eventually([&] { return test::OpenDescriptors() == before; }));
}

kipc::TapHead HeadOf(const std::string& shown) {
    kipc::TapHead head{};
    EXPECT_GE(shown.size(), sizeof head);
    std::memcpy(&head, shown.data(), std::min(shown.size(), sizeof head));
    EXPECT_EQ(head.magic, kipc::kTapMagic);
    EXPECT_EQ(head.version, kipc::kTapVersion);
    EXPECT_EQ(head.head_bytes, sizeof head);
    EXPECT_EQ(head.length, shown.size() - sizeof head);
    return head;
}

TEST_F(Kipc, TapSeesWhatLeavesWithTimeReceiverAndFate) {
    Inbox tap(folder.path() + "/tap");
    Inbox media(PathOf("media"));
    timespec mono{};
    timespec wall{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &wall);
    Send(*interface, 0x4000800000, "usb packet");

    const std::string first = tap.Receive();
    const kipc::TapHead to_media = HeadOf(first);
    EXPECT_EQ(first.substr(sizeof to_media), "usb packet");
    EXPECT_EQ(to_media.direction, kipc::TAP_OUT);
    EXPECT_EQ(to_media.outcome, kipc::TAP_DELIVERED);
    EXPECT_EQ(to_media.mask, kMedia);
    EXPECT_STREQ(to_media.sender, "usb");
    EXPECT_STREQ(to_media.receiver, "media");
    EXPECT_EQ(to_media.lost, 0u);
    const auto minute = 60'000'000'000ull;
    const auto mono_ns =
        static_cast<std::uint64_t>(mono.tv_sec) * 1000000000u + static_cast<std::uint64_t>(mono.tv_nsec);
    const auto wall_ns =
        static_cast<std::uint64_t>(wall.tv_sec) * 1000000000u + static_cast<std::uint64_t>(wall.tv_nsec);
    EXPECT_GE(to_media.monotonic_ns, mono_ns);
    EXPECT_LT(to_media.monotonic_ns, mono_ns + minute);
    EXPECT_GT(to_media.wall_ns, wall_ns - minute);
    EXPECT_LT(to_media.wall_ns, wall_ns + minute);

    const kipc::TapHead to_speech = HeadOf(tap.Receive());
    EXPECT_EQ(to_speech.outcome, kipc::TAP_NO_RECEIVER);
    EXPECT_STREQ(to_speech.receiver, "speech");
    EXPECT_EQ(to_speech.monotonic_ns, to_media.monotonic_ns);  // one call
    EXPECT_EQ(media.Receive(), "usb packet");
}

TEST_F(Kipc, TapThatComesLateSeesWhatIsSentFromThenOn) {
    Inbox media(PathOf("media"));
    Send(*interface, kMedia, "unseen");
    EXPECT_EQ(media.Receive(), "unseen");
    Inbox tap(folder.path() + "/tap");
    ASSERT_TRUE(test::Eventually([&] {
        Send(*interface, kMedia, "seen");
        return tap.HasMore(0);
    }));
    std::string shown = tap.Receive();
    if (shown.ends_with("unseen")) shown = tap.Receive();  // delivered before, but shown only now
    EXPECT_EQ(shown.substr(sizeof(kipc::TapHead)), "seen");
}

TEST_F(Kipc, SlowTapLosesRecordsAndIsToldHowManyAndNobodyElseLosesAny) {
    Inbox tap(folder.path() + "/tap");
    Inbox media(PathOf("media"));
    constexpr unsigned kCount = 4000;
    for (unsigned i = 0; i < kCount; i += 100) {
        for (unsigned k = i; k < i + 100; ++k)
            Send(*interface, kMedia, std::to_string(k));
        for (unsigned k = i; k < i + 100; ++k)
            ASSERT_EQ(media.Receive(), std::to_string(k));
    }
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("the tap does not read: it misses records")));
    unsigned shown = 0;
    for (tap.Accept(); tap.HasMore(shown < 1024 ? 5000 : 100); ++shown)
        ASSERT_EQ(tap.Receive().substr(sizeof(kipc::TapHead)), std::to_string(shown));
    EXPECT_GE(shown, 1024u);
    Send(*interface, kMedia, "again");
    EXPECT_EQ(HeadOf(tap.Receive()).lost, kCount - shown);
    Send(*interface, kMedia, "and again");
    EXPECT_EQ(HeadOf(tap.Receive()).lost, 0u);
}

TEST_F(Kipc, TapThatDiesCostsNobodyAnything) {
    Inbox media(PathOf("media"));
    {
        Inbox tap(folder.path() + "/tap");
        Send(*interface, kMedia, "one");
        tap.Receive();
    }
    for (int i = 0; i < 10; ++i)
        Send(*interface, kMedia, "x");
    EXPECT_EQ(media.Receive(), "one");
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(media.Receive(), "x");
    EXPECT_THAT(log.Lines(), SizeIs(0));
}

}  // namespace
