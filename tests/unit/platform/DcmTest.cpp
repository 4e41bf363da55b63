#include "platform/dcm.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Bench.h"
#include "gmock/gmock.h"
#include "platform/tap.h"

namespace {

// What another thread than this one closes stays open, as when a program is just being started: between fork
// and exec it holds everything that this process had open.
std::atomic<std::thread::id> g_closes_for_good{};
std::atomic<int> g_kept{-1};

}  // namespace

extern "C" {
int __real_close(int fd);
int __wrap_close(int fd) {
    const std::thread::id closes_for_good = g_closes_for_good;
    if (closes_for_good != std::thread::id{} && closes_for_good != std::this_thread::get_id())
        g_kept = dup(fd);
    return __real_close(fd);
}
}

namespace {

using dcm::DcmInterface;
using test::CapturedLog;
using test::Inbox;
using test::Peer;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;

struct Received {
    unsigned long source;
    std::string bytes;
    bool operator==(const Received&) const = default;
    friend void PrintTo(const Received& record, std::ostream* out) {
        *out << std::hex << record.source << " \"" << record.bytes << "\"";
    }
};

struct Dcm : ::testing::Test {
    test::KipcFolder folder;
    CapturedLog log;
    std::unique_ptr<DcmInterface> interface = std::make_unique<DcmInterface>();

    ~Dcm() override { unsetenv("LISTEN_PID"); }

    std::string SocketOf(const std::string& sender) const { return folder.path() + "/usb/" + sender; }

    Received Next() {
        frame::Message::Record record;
        EXPECT_TRUE(test::Eventually(
            [&] { return interface->GetMessageQueue(DcmInterface::QUEUE_USB)->take(&record); }));
        return {record.src, std::string(record.buf, record.len)};
    }
    std::string Me() const {
        return "pid " + std::to_string(getpid()) + " of uid " + std::to_string(getuid());
    }
};

TEST_F(Dcm, GivesQueuesByPositionAndTheWayOut) {
    for (unsigned position : {1u, 2u, 4u, 5u})
        EXPECT_NE(interface->GetMessageQueue(position), nullptr) << position;
    for (unsigned position : {0u, 3u, 6u, ~0u})
        EXPECT_EQ(interface->GetMessageQueue(position), nullptr) << position;
    EXPECT_NE(interface->GetKipcSP(), nullptr);
    EXPECT_STREQ(dcm::DcmMessage::kMsgName[1], "usb");
}

TEST_F(Dcm, SenderIsKnownByTheSocketItOpened) {
    const std::pair<const char*, unsigned long> senders[] = {
        {"media", 0x800000}, {"diag", 0x0800000000000000},  {"sdcm", 4096},
        {"settings", 0},     {"power", 0x8000000000000000}, {"test", 0x40000000000},
    };
    for (const auto& [name, source] : senders) {
        Peer peer(SocketOf(name));
        ASSERT_TRUE(peer.connected()) << name;
        EXPECT_TRUE(peer.Send(name));
        EXPECT_EQ(Next(), (Received{source, name}));
    }
}

TEST_F(Dcm, PeerThatLeavesWhileAProgramIsBeingStartedIsForgotten) {
    {
        Peer peer(SocketOf("media"));
        ASSERT_TRUE(peer.Send("last words"));
        EXPECT_EQ(Next(), (Received{0x800000, "last words"}));
        g_closes_for_good = std::this_thread::get_id();
    }
    EXPECT_TRUE(test::Eventually([] { return g_kept >= 0; }));
    g_closes_for_good = std::thread::id{};

    Peer other(SocketOf("media"));
    for (const char* word : {"one", "two", "three"}) {
        EXPECT_TRUE(other.Send(word));
        EXPECT_EQ(Next(), (Received{0x800000, word}));
    }
    close(g_kept.exchange(-1));
}

TEST_F(Dcm, RecordsOfOneByteAndOfTheLargestSizeAreDelivered) {
    Peer media(SocketOf("media"));
    media.Send("x");
    EXPECT_EQ(Next(), (Received{0x800000, "x"}));
    const std::string largest(4096, 'y');
    media.Send(largest);
    EXPECT_EQ(Next(), (Received{0x800000, largest}));
    EXPECT_THAT(log.Lines(), SizeIs(0));
}

TEST_F(Dcm, OverlongRecordIsRefusedWithItsSendersPidAndUidAndTheNextOneIsTaken) {
    Peer media(SocketOf("media"));
    media.Send(std::string(4097, 'x'));
    media.Send("good");
    EXPECT_EQ(Next(), (Received{0x800000, "good"}));
    media.Send(std::string(65536, 'x'));
    media.Send("good again");
    EXPECT_EQ(Next(), (Received{0x800000, "good again"}));
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("media: a record of 4097 bytes from " + Me() + " is too long"),
                            EndsWith("media: a record of 65536 bytes from " + Me() + " is too long")));
}

TEST_F(Dcm, EmptyRecordIsRefusedAndDoesNotEndTheConnection) {
    Peer diag(SocketOf("diag"));
    EXPECT_EQ(send(diag.get(), "", 0, MSG_NOSIGNAL), 0);
    diag.Send("good");
    EXPECT_EQ(Next(), (Received{0x0800000000000000, "good"}));
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("diag: a record of 0 bytes from " + Me() + " is empty")));
}

TEST_F(Dcm, RowOfBadRecordsIsLoggedAtItsBeginningAndItsEnd) {
    Peer media(SocketOf("media"));
    for (int i = 0; i < 20; ++i)
        media.Send(std::string(5000, 'x'));
    media.Send("good");
    EXPECT_EQ(Next(), (Received{0x800000, "good"}));
    EXPECT_THAT(log.Lines(),
                ElementsAre(HasSubstr("5000 bytes"),
                            EndsWith("media: 20 records in a row from " + Me() + " were refused")));
}

TEST_F(Dcm, DescriptorsThatAPeerAttachesAreNotTaken) {
    Peer media(SocketOf("media"));
    media.Send("first");
    Next();
    const std::size_t before = test::OpenDescriptors();
    char text[] = "with a descriptor";
    iovec bytes{text, sizeof text - 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* attached = CMSG_FIRSTHDR(&message);
    attached->cmsg_level = SOL_SOCKET;
    attached->cmsg_type = SCM_RIGHTS;
    attached->cmsg_len = CMSG_LEN(sizeof(int));
    const int fd = media.get();
    std::memcpy(CMSG_DATA(attached), &fd, sizeof fd);
    ASSERT_GT(sendmsg(media.get(), &message, 0), 0);
    EXPECT_EQ(Next(), (Received{0x800000, "with a descriptor"}));
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(Dcm, SeveralProcessesMaySpeakAsOneSender) {
    Peer first(SocketOf("media"));
    Peer second(SocketOf("media"));
    first.Send("one");
    EXPECT_EQ(Next().bytes, "one");
    second.Send("two");
    EXPECT_EQ(Next().bytes, "two");
}

TEST_F(Dcm, PeersBeyondTheSixteenthAreTurnedAwayUntilOneLeaves) {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 16; ++i) {
        peers.push_back(std::make_unique<Peer>(SocketOf("media")));
        peers.back()->Send("x");
        Next();
    }
    for (int i = 0; i < 3; ++i) {
        Peer late(SocketOf("media"));
        char byte = 0;
        EXPECT_EQ(recv(late.get(), &byte, 1, 0), 0);  // closed
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("media: no more than 16 connections, " + Me() + " is turned away")));
    Peer other(SocketOf("diag"));
    other.Send("diag is not concerned");
    EXPECT_EQ(Next().bytes, "diag is not concerned");
    peers.pop_back();
    EXPECT_TRUE(test::Eventually([&] {
        peers.push_back(std::make_unique<Peer>(SocketOf("media")));
        return peers.back()->Send("welcome") && interface->GetMessageQueue(1)->waiting() > 0;
    }));
    EXPECT_EQ(Next().bytes, "welcome");
}

TEST_F(Dcm, RunsOutOfDescriptorsWithoutSpinningAndRecovers) {
    Peer waiting(SocketOf("power"));  // its thread is awake before the limit
    waiting.Send("x");
    Next();
    const int client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    test::Descriptor owner(client);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, SocketOf("media").c_str(), sizeof address.sun_path - 1);

    const long ticks = test::CostOf("kipc-reader").ticks;
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = dup(client);  // all lower ones are taken up to here
    close(highest);
    const rlimit none{static_cast<rlim_t>(highest), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(send(client, "late", 4, 0), 4);
    const bool said = log.WaitFor("media: nobody can connect for a while: Too many open files");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::size_t lines = log.Lines().size();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_LT(test::CostOf("kipc-reader").ticks - ticks, 10);  // of the 30 or more that went by
    EXPECT_TRUE(said);
    EXPECT_EQ(lines, 1u);
    EXPECT_EQ(Next(), (Received{0x800000, "late"}));
}

TEST_F(Dcm, SocketsAreForOwnerAndGroupWhateverTheUmask) {
    interface.reset();
    const mode_t before = umask(0777);
    std::filesystem::remove_all(folder.path() + "/usb");
    umask(0);
    interface = std::make_unique<DcmInterface>();
    umask(before);
    struct stat status;
    ASSERT_EQ(stat(SocketOf("diag").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    ASSERT_EQ(stat((folder.path() + "/usb").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST_F(Dcm, SocketsOfAPreviousRunAreReplaced) {
    interface.reset();
    {
        Inbox stale(SocketOf("media"));
    }  // its file stays
    ASSERT_TRUE(std::filesystem::is_socket(SocketOf("media")));
    interface = std::make_unique<DcmInterface>();
    Peer media(SocketOf("media"));
    ASSERT_TRUE(media.connected());
    media.Send("x");
    EXPECT_EQ(Next().bytes, "x");
    EXPECT_THAT(log.Lines(), SizeIs(0));
}

TEST_F(Dcm, FileThatIsNoSocketIsLeftAloneAndTheOthersWork) {
    interface.reset();
    std::ofstream(SocketOf("media")) << "kept";
    interface = std::make_unique<DcmInterface>();
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("no socket " + SocketOf("media") + ": Address already in use")));
    EXPECT_TRUE(std::filesystem::is_regular_file(SocketOf("media")));
    Peer diag(SocketOf("diag"));
    diag.Send("x");
    EXPECT_EQ(Next().bytes, "x");
}

TEST_F(Dcm, MissingFoldersAreMade) {
    interface.reset();
    setenv("KIPC_DIR", (folder.path() + "/a/b/c").c_str(), 1);
    interface = std::make_unique<DcmInterface>();
    Peer media(folder.path() + "/a/b/c/usb/media");
    EXPECT_TRUE(media.connected());
}

TEST_F(Dcm, WithoutItsFolderItSaysSoAndTheQueuesStillWork) {
    interface.reset();
    std::ofstream(folder.path() + "/file") << "in the way";
    setenv("KIPC_DIR", (folder.path() + "/file").c_str(), 1);
    interface = std::make_unique<DcmInterface>();
    const std::vector<std::string> lines =
        log.LinesWith("no inbox " + folder.path() + "/file/usb: Not a directory");
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr(" 192 100.0 "));
    interface->GetMessageQueue(DcmInterface::QUEUE_USB)->push(4096, 1, "x");
    EXPECT_EQ(Next(), (Received{4096, "x"}));
}

TEST_F(Dcm, SocketHandedOverByTheServiceManagerIsUsedAndNotTakenAway) {
    interface.reset();
    const std::string elsewhere = folder.path() + "/handed-over";
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, elsewhere.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 4), 0);
    std::string names;
    for (int before = 3; before < fd; ++before)
        names += "other:";
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", std::to_string(fd - 2).c_str(), 1);
    setenv("LISTEN_FDNAMES", (names + "media").c_str(), 1);
    interface = std::make_unique<DcmInterface>();
    unsetenv("LISTEN_PID");
    EXPECT_FALSE(std::filesystem::exists(SocketOf("media")));
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    Peer media(elsewhere);
    media.Send("x");
    EXPECT_EQ(Next(), (Received{0x800000, "x"}));
    Peer diag(SocketOf("diag"));
    diag.Send("y");
    EXPECT_EQ(Next(), (Received{0x0800000000000000, "y"}));
    interface.reset();
    EXPECT_TRUE(std::filesystem::exists(elsewhere));
}

TEST_F(Dcm, NothingThatWasHandedOverIsInheritedByChildrenAlsoWhatNobodyAskedFor) {
    interface.reset();
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 3);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "1000000000", 1);  // ends where the descriptors end
    setenv("LISTEN_FDNAMES", "stranger", 1);
    interface = std::make_unique<DcmInterface>();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(std::filesystem::exists(SocketOf("media")));
    interface.reset();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << "not ours to close";
    close(fd);
}

TEST_F(Dcm, WhatIsPushedToTheSdcmQueueGoesToSdcmInOrder) {
    Inbox sdcm(folder.path() + "/sdcm/usb");
    for (int i = 0; i < 100; ++i) {
        const std::string record = "record " + std::to_string(i);
        interface->GetMessageQueue(DcmInterface::QUEUE_SDCM)
            ->push(4096, static_cast<unsigned>(record.size()), record.data());
    }
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(sdcm.Receive(), "record " + std::to_string(i));
}

TEST_F(Dcm, WhatWasPushedForSdcmBeforeTheEndStillLeaves) {
    Inbox sdcm(folder.path() + "/sdcm/usb");
    for (int i = 0; i < 20; ++i)
        interface->GetMessageQueue(DcmInterface::QUEUE_SDCM)->push(4096, 2, i % 2 ? "b" : "a");
    interface.reset();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(sdcm.Receive().size(), 2u);
}

TEST_F(Dcm, TapSeesWhatComesInAndWhatGoesToSdcm) {
    Inbox tap(folder.path() + "/tap");
    Peer diag(SocketOf("diag"));
    diag.Send("request");
    EXPECT_EQ(Next().bytes, "request");
    std::string shown = tap.Receive();
    kipc::TapHead head{};
    ASSERT_EQ(shown.size(), sizeof head + 7);
    std::memcpy(&head, shown.data(), sizeof head);
    EXPECT_EQ(shown.substr(sizeof head), "request");
    EXPECT_EQ(head.direction, kipc::TAP_IN);
    EXPECT_EQ(head.outcome, kipc::TAP_DELIVERED);
    EXPECT_EQ(head.mask, 0x0800000000000000u);
    EXPECT_STREQ(head.sender, "diag");
    EXPECT_STREQ(head.receiver, "usb");

    interface->GetMessageQueue(DcmInterface::QUEUE_SDCM)->push(4096, 4, "scan");
    shown = tap.Receive();
    ASSERT_EQ(shown.size(), sizeof head + 4);
    std::memcpy(&head, shown.data(), sizeof head);
    EXPECT_EQ(head.direction, kipc::TAP_OUT);
    EXPECT_EQ(head.outcome, kipc::TAP_NO_RECEIVER);
    EXPECT_EQ(head.mask, 0u);
    EXPECT_STREQ(head.sender, "usb");
    EXPECT_STREQ(head.receiver, "sdcm");
}

TEST_F(Dcm, EndsWithPeersConnectedAndTakesItsSocketsAway) {
    Peer media(SocketOf("media"));
    media.Send("x");
    Next();
    DcmInterface::m_pInstance = interface.get();
    interface.reset();
    EXPECT_EQ(DcmInterface::m_pInstance, nullptr);
    EXPECT_FALSE(std::filesystem::exists(SocketOf("media")));
    char byte = 0;
    EXPECT_EQ(recv(media.get(), &byte, 1, 0), 0);
}

TEST(DcmDescriptors, NothingIsLeftOpenAndEverythingIsCloseOnExec) {
    test::KipcFolder folder;
    CapturedLog log;
    const std::size_t before = test::OpenDescriptors();
    for (int run = 0; run < 5; ++run) {
        std::vector<bool> taken;
        for (int fd = 0; fd < 256; ++fd)
            taken.push_back(fcntl(fd, F_GETFD) >= 0);
        DcmInterface interface;
        for (int fd = 0; fd < 256; ++fd) {
            const int flags = fcntl(fd, F_GETFD);
            if (taken[static_cast<std::size_t>(fd)] || flags < 0) continue;
            EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC) << fd;
        }
    }
    EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace
