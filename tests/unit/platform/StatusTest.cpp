#include "platform/status.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "Bench.h"
#include "StatusBoard.h"
#include "StatusServer.h"
#include "gmock/gmock.h"
#include "platform/dcm.h"

namespace {

using dcm::DcmInterface;
using test::Inbox;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kKind = status::KIND_OF_OWNERS + 1000;

status::Number g_events("test-events");
status::Number g_long_name("test-number-with-a-name-that-is-too-long", 7);

struct Read {
    status::RecordHead head;
    std::string bytes;
};

template <typename Record>
Record As(const std::string& bytes) {
    Record record{};
    EXPECT_EQ(bytes.size(), sizeof record);
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

// One record from the front of `bytes`, which shrinks.
Read TakeOne(std::string_view* bytes) {
    Read one{};
    EXPECT_GE(bytes->size(), sizeof one.head);
    std::memcpy(&one.head, bytes->data(), sizeof one.head);
    EXPECT_GE(bytes->size(), sizeof one.head + one.head.length);
    one.bytes = bytes->substr(sizeof one.head, one.head.length);
    bytes->remove_prefix(sizeof one.head + one.head.length);
    return one;
}

std::vector<Read> Look() {
    status::Snapshot snapshot = status::Snapshot::Take();
    snapshot.End();
    EXPECT_TRUE(snapshot.good());
    std::string_view rest(snapshot.data(), snapshot.size());
    std::vector<Read> records;
    while (!rest.empty())
        records.push_back(TakeOne(&rest));
    return records;
}

std::vector<Read> OfKind(const std::vector<Read>& records, std::uint32_t kind) {
    std::vector<Read> found;
    for (const Read& record : records)
        if (record.head.kind == kind) found.push_back(record);
    return found;
}

std::vector<std::string> Rows() {
    std::vector<std::string> bytes;
    for (const Read& record : OfKind(Look(), kKind))
        bytes.push_back(record.bytes);
    return bytes;
}

void ShowText(status::Row* row, const std::string& text) {
    row->Show(kKind, text.data(), text.size());
}

std::uint64_t Refused() {
    return As<status::EndRecord>(Look().back().bytes).refused;
}

std::uint64_t NumberOf(const std::vector<Read>& records, std::string_view name) {
    for (const Read& one : OfKind(records, status::KIND_NUMBER)) {
        const auto number = As<status::NumberRecord>(one.bytes);
        if (name == number.name) return number.value;
    }
    ADD_FAILURE() << "no number " << name;
    return 0;
}

// ---- Rows and numbers

TEST(StatusRow, IsShownReplacedAndGoneWithItsOwner) {
    status::Row never;
    EXPECT_THAT(Rows(), IsEmpty());
    {
        status::Row first;
        status::Row second;
        ShowText(&first, "one");
        ShowText(&second, "two");
        EXPECT_THAT(Rows(), ElementsAre("one", "two"));
        ShowText(&first, "ONE");
        EXPECT_THAT(Rows(), ElementsAre("ONE", "two")) << "a replaced row keeps its place";
    }
    EXPECT_THAT(Rows(), IsEmpty());
}

TEST(StatusRow, WithdrawnIsGoneUntilItIsShownAgainAndThenIsAnother) {
    status::Row row;
    row.Withdraw();
    ShowText(&row, "here");
    const std::uint64_t before = OfKind(Look(), kKind).at(0).head.row;
    ShowText(&row, "HERE");
    EXPECT_EQ(OfKind(Look(), kKind).at(0).head.row, before);
    row.Withdraw();
    row.Withdraw();
    EXPECT_THAT(Rows(), IsEmpty());
    ShowText(&row, "here");
    EXPECT_GT(OfKind(Look(), kKind).at(0).head.row, before);
}

TEST(StatusRow, LeavesFromTheFrontTheMiddleAndTheEnd) {
    for (int leaving = 0; leaving < 3; ++leaving) {
        status::Row rows[3];
        ShowText(&rows[0], "a");
        ShowText(&rows[1], "b");
        ShowText(&rows[2], "c");
        rows[leaving].Withdraw();
        std::vector<std::string> left{"a", "b", "c"};
        left.erase(left.begin() + leaving);
        EXPECT_EQ(Rows(), left);
        ShowText(&rows[leaving], "again");
        left.push_back("again");
        EXPECT_EQ(Rows(), left);
    }
}

TEST(StatusRow, MayChangeItsKindAndBecomeShorter) {
    status::Row row;
    ShowText(&row, "long text");
    row.Show(kKind + 1, "short", 5);
    EXPECT_THAT(Rows(), IsEmpty());
    EXPECT_EQ(OfKind(Look(), kKind + 1).at(0).bytes, "short");
    ShowText(&row, "LONG TEXT");
    EXPECT_THAT(Rows(), ElementsAre("LONG TEXT"));
}

TEST(StatusRow, WhatDoesNotFitIsCountedAndWhatWasShownStays) {
    const std::uint64_t refused = Refused();
    status::Row row;
    ShowText(&row, std::string(status::kMaxRecordBytes + 1, 'x'));
    EXPECT_THAT(Rows(), IsEmpty());
    EXPECT_EQ(Refused(), refused + 1);
    ShowText(&row, "four");
    ShowText(&row, "fives");
    EXPECT_THAT(Rows(), ElementsAre("four"));
    EXPECT_EQ(Refused(), refused + 2);
}

TEST(StatusRow, ThereAreAtMostAsManyAsTheHeaderSays) {
    const std::uint64_t refused = Refused();
    std::vector<std::unique_ptr<status::Row>> rows;
    for (std::uint32_t i = 0; i < status::kMaxRows + 3; ++i) {
        rows.push_back(std::make_unique<status::Row>());
        ShowText(rows.back().get(), std::string(status::kMaxRecordBytes, 'x'));
    }
    EXPECT_THAT(Rows(), SizeIs(status::kMaxRows));
    EXPECT_EQ(Refused(), refused + 3);
    rows.front().reset();
    ShowText(rows.back().get(), "room again");
    EXPECT_EQ(Rows().back(), "room again");
}

TEST(StatusRow, ReplacingAllocatesNothing) {
    status::Row row;
    ShowText(&row, "first");
    const std::string next = "other";
    const unsigned long before = test::g_allocations;
    for (int i = 0; i < 1000; ++i)
        row.Show(kKind, next.data(), next.size());
    EXPECT_EQ(test::g_allocations - before, 0u);
}

TEST(StatusNumber, IsInEverySnapshotUnderItsNameOrTheFirst23CharactersOfIt) {
    const std::uint64_t before = NumberOf(Look(), "test-events");
    g_events.Add();
    g_events.Add();
    EXPECT_EQ(NumberOf(Look(), "test-events"), before + 2);
    g_events.Set(before);
    EXPECT_EQ(NumberOf(Look(), "test-events"), before);
    EXPECT_EQ(NumberOf(Look(), "test-number-with-a-name"), 7u);
}

TEST(StatusSnapshot, BeginsWithWhoseItIsAndEndsWithItsLength) {
    status::Row row;
    ShowText(&row, "x");
    const std::uint64_t before = status::NowNs();
    const std::vector<Read> records = Look();
    ASSERT_GE(records.size(), 2u);
    const auto start = As<status::StartRecord>(records.front().bytes);
    EXPECT_EQ(records.front().head.kind, status::KIND_START);
    EXPECT_EQ(start.magic, status::kMagic);
    EXPECT_EQ(start.version, status::kVersion);
    EXPECT_EQ(start.head_bytes, sizeof(status::RecordHead));
    EXPECT_EQ(start.process, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(start.unused, 0u);
    EXPECT_GT(start.started_ns, 0u);
    EXPECT_LE(start.started_ns, before);
    EXPECT_GE(start.now_ns, before);
    EXPECT_LE(start.now_ns, status::NowNs());
    EXPECT_EQ(records.back().head.kind, status::KIND_END);
    EXPECT_EQ(As<status::EndRecord>(records.back().bytes).records, records.size() - 2);
}

TEST(StatusSnapshot, ShowsOnlyWholeRecordsWhilstTheirOwnersReplaceAndWithdrawThem) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> owners;
    for (char owner = 0; owner < 3; ++owner)
        owners.emplace_back([&stop, owner] {
            char letter = static_cast<char>('a' + owner);
            while (!stop) {
                status::Row row;
                for (int i = 0; i < 20; ++i) {
                    letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1);
                    ShowText(&row, std::string(300, letter));
                    g_events.Add();
                }
            }
        });
    std::size_t seen = 0;
    for (int i = 0; i < 300; ++i)
        for (const std::string& bytes : Rows()) {
            ++seen;
            EXPECT_EQ(bytes, std::string(300, bytes.at(0)));
        }
    while (seen == 0)  // on a busy machine no owner had its turn yet
        seen = Rows().size();
    stop = true;
    for (std::thread& owner : owners)
        owner.join();
    EXPECT_THAT(Rows(), IsEmpty());
}

// ---- The socket

class Client {
public:
    explicit Client(const std::string& path) : m_peer(path) {}
    bool connected() const { return m_peer.connected(); }
    int get() const { return m_peer.get(); }

    // All that comes up to the end of the connection; an incomplete snapshot is a failure.
    std::vector<Read> ReadAll() {
        std::vector<Read> records;
        char bytes[sizeof(status::RecordHead) + status::kMaxRecordBytes + 1];
        for (;;) {
            pollfd readable{get(), POLLIN, 0};
            if (poll(&readable, 1, 20000) <= 0) {
                ADD_FAILURE() << "nothing comes any more";
                return records;
            }
            const ssize_t length = recv(get(), bytes, sizeof bytes, 0);
            if (length <= 0) {
                EXPECT_EQ(length, 0) << strerror(errno);
                break;
            }
            std::string_view rest(bytes, static_cast<std::size_t>(length));
            records.push_back(TakeOne(&rest));
            EXPECT_TRUE(rest.empty()) << "one datagram, one record";
        }
        if (records.empty() || records.front().head.kind != status::KIND_START ||
            records.back().head.kind != status::KIND_END)
            ADD_FAILURE() << "a snapshot of " << records.size() << " records has no start or no end";
        else
            EXPECT_EQ(As<status::EndRecord>(records.back().bytes).records, records.size() - 2);
        return records;
    }

private:
    test::Peer m_peer;
};

// ---- The server, step by step

struct StatusServer : ::testing::Test {
    test::KipcFolder folder;
    const std::string path = folder.path() + "/status";
    platform::StatusServer server{[](status::Snapshot*) {}};

    void SetUp() override {
        const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 64), 0);
        ASSERT_TRUE(server.Listen(listener));
    }
    bool HasWork() const {
        pollfd readable{server.fd(), POLLIN, 0};
        return poll(&readable, 1, 0) > 0;
    }
};

TEST_F(StatusServer, AnswersAndEndsTheConnectionInOneStep) {
    EXPECT_FALSE(HasWork());
    Client client(path);
    EXPECT_TRUE(HasWork());
    server.Serve();
    char byte;
    while (recv(client.get(), &byte, 1, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(recv(client.get(), &byte, 1, MSG_DONTWAIT), 0) << "the end is there";
    EXPECT_FALSE(HasWork());
}

TEST_F(StatusServer, ComesBackForTheRestWhenManyWait) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 40; ++i)
        clients.push_back(std::make_unique<Client>(path));
    for (int step = 0; HasWork(); ++step) {
        ASSERT_LT(step, 40);
        server.Serve();
    }
    for (const auto& client : clients)
        EXPECT_GE(client->ReadAll().size(), 2u);
}

TEST_F(StatusServer, HasNoWorkWithAClientThatCannotBeAcceptedOrDoesNotRead) {
    status::Row rows[250];
    for (status::Row& row : rows)
        ShowText(&row, std::string(1000, 'm'));
    Client slow(path);
    server.Serve();
    EXPECT_FALSE(HasWork());
    Client refused(path);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = dup(slow.get());  // all lower ones are taken up to here
    close(highest);
    const rlimit none{static_cast<rlim_t>(highest), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    server.Serve();
    const bool has_work = HasWork();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(has_work);
    Client next(path);
    server.Serve();
    for (Client* client : {&refused, &next}) {
        char byte;
        EXPECT_GT(recv(client->get(), &byte, 1, MSG_DONTWAIT), 0);
    }
}

TEST_F(StatusServer, WhoWritesWhileItsSnapshotIsOnTheWayGetsItWhole) {
    status::Row rows[250];
    for (status::Row& row : rows)
        ShowText(&row, std::string(1000, 'm'));
    Client client(path);
    server.Serve();
    EXPECT_EQ(send(client.get(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT), -1) << "nobody would read it";
    std::thread reading([&] { EXPECT_THAT(OfKind(client.ReadAll(), kKind), SizeIs(250)); });
    std::atomic<bool> stop{false};
    std::thread serving([&] {
        while (!stop)
            server.Serve();
    });
    reading.join();
    stop = true;
    serving.join();
}

// ---- The server in its place

struct StatusSocket : ::testing::Test {
    test::KipcFolder folder;
    test::CapturedLog log;
    std::unique_ptr<DcmInterface> interface = std::make_unique<DcmInterface>();
    const std::string path = folder.path() + "/usb/status";

    ~StatusSocket() override { unsetenv("LISTEN_PID"); }

    std::vector<Read> Ask() { return Client(path).ReadAll(); }

    // More than the kernel keeps for a socket.
    std::vector<std::unique_ptr<status::Row>> ShowMuch() {
        std::vector<std::unique_ptr<status::Row>> rows;
        for (int i = 0; i < 250; ++i) {
            rows.push_back(std::make_unique<status::Row>());
            ShowText(rows.back().get(), std::string(1000, 'm'));
        }
        return rows;
    }

    status::ReceiverRecord Receiver(std::string_view name) {
        for (const Read& one : OfKind(Ask(), status::KIND_RECEIVER)) {
            const auto record = As<status::ReceiverRecord>(one.bytes);
            if (name == record.name) return record;
        }
        return {};
    }
    status::QueueRecord Queue(std::string_view name) {
        for (const Read& one : OfKind(Ask(), status::KIND_QUEUE)) {
            const auto record = As<status::QueueRecord>(one.bytes);
            if (name == record.name) return record;
        }
        return {};
    }
};

TEST_F(StatusSocket, GivesASnapshotAndEndsTheConnection) {
    status::Row row;
    ShowText(&row, "shown");
    const std::vector<Read> records = Ask();
    ASSERT_THAT(OfKind(records, kKind), SizeIs(1));
    EXPECT_EQ(OfKind(records, kKind)[0].bytes, "shown");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StatusSocket, TellsOfEachQueueWhatWaitsAndTheMostThatEverWaited) {
    std::vector<std::string> names;
    for (const Read& one : OfKind(Ask(), status::KIND_QUEUE))
        names.push_back(As<status::QueueRecord>(one.bytes).name);
    EXPECT_THAT(names, ElementsAre("usb", "sdcm", "event", "monitor"));

    frame::Message* const queue = interface->GetMessageQueue(DcmInterface::QUEUE_MONITOR);
    queue->push(1, 5, "12345");
    queue->push(1, 5, "12345");
    EXPECT_EQ(Queue("monitor").waiting, 2u);
    EXPECT_EQ(Queue("monitor").high_water, queue->high_water());
    frame::Message::Record record;
    EXPECT_TRUE(queue->take(&record));
    EXPECT_TRUE(queue->take(&record));
    EXPECT_EQ(Queue("monitor").waiting, 0u);
    EXPECT_GT(Queue("monitor").high_water, 0u);
    EXPECT_EQ(Queue("monitor").dropped, 0u);
    const std::vector<char> much(1024 * 1024);
    for (int i = 0; i < 20; ++i)
        queue->push(1, static_cast<unsigned>(much.size()), much.data());
    EXPECT_EQ(Queue("monitor").dropped, queue->dropped());
    EXPECT_GT(Queue("monitor").dropped, 0u);
}

TEST_F(StatusSocket, TellsOfEachReceiverWhatItGotAndWhatWasLost) {
    constexpr unsigned long kMedia = 0x800000;
    constexpr unsigned long kNavi = 0x2000000;
    EXPECT_THAT(OfKind(Ask(), status::KIND_RECEIVER), IsEmpty()) << "nobody was sent to";
    Inbox media(folder.path() + "/media/usb");
    char record[] = "record";
    for (int i = 0; i < 3; ++i)
        interface->GetKipcSP()->send_pkt(kMedia | kNavi, sizeof record, record);
    EXPECT_TRUE(test::Eventually([&] { return Receiver("media").sent == 3; }));
    EXPECT_TRUE(test::Eventually([&] { return Receiver("navi").dropped == 3; }));
    EXPECT_EQ(Receiver("media").dropped, 0u);
    EXPECT_EQ(Receiver("media").waiting, 0u);
    EXPECT_EQ(Receiver("navi").sent, 0u);
    EXPECT_EQ(Receiver("navi").waiting, 0u);
}

TEST_F(StatusSocket, TellsWhatWaitsForAReceiverThatDoesNotRead) {
    constexpr unsigned long kMedia = 0x800000;
    Inbox media(folder.path() + "/media/usb");
    std::string record(4000, 'x');
    std::uint64_t sent = 0;
    const auto send = [&] {
        interface->GetKipcSP()->send_pkt(kMedia, static_cast<unsigned>(record.size()), record.data());
        ++sent;
    };
    while (Receiver("media").dropped == 0) {
        for (int i = 0; i < 20; ++i)
            send();
        ASSERT_LT(sent, 5000u);
    }
    EXPECT_TRUE(test::Eventually([&] {
        const status::ReceiverRecord media_now = Receiver("media");
        return media_now.sent + media_now.dropped + media_now.waiting == sent;
    }));
    EXPECT_GE(Receiver("media").waiting, 200u);
    for (std::uint64_t left = Receiver("media").sent + Receiver("media").waiting; left > 0; --left)
        ASSERT_EQ(media.Receive(), record);
    EXPECT_TRUE(test::Eventually([&] { return Receiver("media").waiting == 0; }));
    EXPECT_EQ(Receiver("media").sent + Receiver("media").dropped, sent);
}

TEST_F(StatusSocket, WhatAClientSendsIsPassedOver) {
    for (int i = 0; i < 50; ++i) {
        Client client(path);
        ASSERT_TRUE(client.connected());
        for (int k = 0; k < 5; ++k)
            send(client.get(), "delete everything", 17, MSG_NOSIGNAL | MSG_DONTWAIT);
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
        iovec bytes{const_cast<char*>("x"), 1};
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof fd);
        std::memcpy(CMSG_DATA(head), &fd, sizeof fd);
        sendmsg(client.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        close(fd);
        EXPECT_THAT(OfKind(client.ReadAll(), status::KIND_QUEUE), SizeIs(4));
    }
    frame::Message::Record record;
    EXPECT_FALSE(interface->GetMessageQueue(DcmInterface::QUEUE_USB)->take(&record));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StatusSocket, HundredClientsAtOnceGetTheirSnapshotsAndNothingOfThemStays) {
    Ask();
    const std::size_t descriptors = test::OpenDescriptors();
    std::vector<std::thread> clients;
    std::atomic<int> whole{0};
    for (int i = 0; i < 100; ++i)
        clients.emplace_back([&] { whole += OfKind(Ask(), status::KIND_QUEUE).size() == 4; });
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(whole, 100);
    EXPECT_TRUE(test::Eventually([&] { return test::OpenDescriptors() == descriptors; }));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StatusSocket, ClientThatLeavesAtOnceHarmsNobody) {
    for (int i = 0; i < 200; ++i)
        Client left(path);
    EXPECT_THAT(OfKind(Ask(), status::KIND_QUEUE), SizeIs(4));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StatusSocket, SlowClientGetsTheSnapshotOfItsBeginningAndKeepsNobodyWaiting) {
    auto rows = ShowMuch();
    Client slow(path);
    ASSERT_TRUE(slow.connected());
    EXPECT_THAT(OfKind(Ask(), kKind), SizeIs(250));  // behind the slow one in the queue
    rows.clear();
    EXPECT_THAT(OfKind(Ask(), kKind), IsEmpty());
    test::Peer media(folder.path() + "/usb/media");
    media.Send("still received");
    frame::Message::Record record;
    EXPECT_TRUE(
        test::Eventually([&] { return interface->GetMessageQueue(DcmInterface::QUEUE_USB)->take(&record); }));
    EXPECT_THAT(OfKind(slow.ReadAll(), kKind), SizeIs(250));
}

TEST_F(StatusSocket, OfNineClientsThatDoNotReadTheOldestIsGivenUp) {
    const auto rows = ShowMuch();
    std::vector<std::unique_ptr<Client>> slow;
    for (int i = 0; i < 9; ++i) {
        slow.push_back(std::make_unique<Client>(path));
        EXPECT_THAT(OfKind(Ask(), kKind), SizeIs(250)) << "the slow one before was accepted";
    }
    // One more was slow for a moment in each Ask(), so of those that are left the last eight are whole or
    // not: the first one is not, the last one is.
    EXPECT_THAT(OfKind(slow.back()->ReadAll(), kKind), SizeIs(250));
    char byte;
    std::size_t records = 0;
    while (recv(slow.front()->get(), &byte, 1, 0) > 0)
        ++records;
    EXPECT_LT(records, 250u);
    slow.clear();
    interface.reset();
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StatusSocket, SleepsWhileNobodyAsksAndAlsoWhileASlowClientWaits) {
    const auto rows = ShowMuch();
    Client slow(path);
    EXPECT_THAT(OfKind(Ask(), kKind), SizeIs(250));
    const long sleeps = test::CostOf("kipc-reader").sleeps;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LE(test::CostOf("kipc-reader").sleeps - sleeps, 1);
}

TEST_F(StatusSocket, WithoutDescriptorsAClientWaitsForTheNextOneAndCostsNothing) {
    const int first = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const int second = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const long ticks = test::CostOf("kipc-reader").ticks;
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = dup(second);  // all lower ones are taken up to here
    close(highest);
    const rlimit none{static_cast<rlim_t>(highest), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(connect(first, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    pollfd readable{first, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 300), 0);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_LT(test::CostOf("kipc-reader").ticks - ticks, 10);  // of the 30 or more that went by
    EXPECT_EQ(connect(second, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (int fd : {first, second}) {
        char bytes[2048];
        readable.fd = fd;
        EXPECT_EQ(poll(&readable, 1, 20000), 1);
        EXPECT_EQ(recv(fd, bytes, sizeof bytes, 0),
                  static_cast<ssize_t>(sizeof(status::RecordHead) + sizeof(status::StartRecord)));
        close(fd);
    }
}

TEST_F(StatusSocket, IsForOwnerAndGroupAndTakenAwayAtTheEnd) {
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    interface.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(StatusSocket, HandedOverByTheServiceManagerIsUsedAndNotTakenAway) {
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
    setenv("LISTEN_FDNAMES", (names + "status").c_str(), 1);
    interface = std::make_unique<DcmInterface>();
    unsetenv("LISTEN_PID");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THAT(OfKind(Client(elsewhere).ReadAll(), status::KIND_QUEUE), SizeIs(4));
    interface.reset();
    EXPECT_TRUE(std::filesystem::exists(elsewhere));
}

}  // namespace
