#include "Inbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include "ServiceSocket.h"

namespace kipcsend {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

class Folder : public testing::Test {
protected:
    Folder() {
        char path[] = "/tmp/kipcsend-XXXXXX";
        m_root = mkdtemp(path);
    }
    ~Folder() override { fs::remove_all(m_root); }

    std::string InboxPath() const { return m_root + "/sdcm/usb"; }
    void MakeInboxFolder() const { fs::create_directory(m_root + "/sdcm"); }

    // A socket that somebody listened on and left.
    void LeaveStaleSocket() const {
        MakeInboxFolder();
        Descriptor listener;
        ASSERT_EQ(ListenAt(InboxPath(), &listener), 0);
    }

    std::string m_root;
};

using AnInbox = Folder;

std::vector<std::vector<unsigned char>> ReceiveAll(Inbox& inbox) {
    std::vector<std::vector<unsigned char>> records;
    while (auto bytes = inbox.Receive())
        records.push_back(*bytes);
    return records;
}

void SendTo(const Descriptor& socket, std::string_view bytes) {
    EXPECT_EQ(send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

TEST_F(AnInbox, IsMadeWithItsFolderAndTakenAwayWithIt) {
    {
        Inbox inbox(m_root, "sdcm");
        ASSERT_EQ(inbox.Open(), Inbox::OURS);
        EXPECT_TRUE(fs::is_socket(InboxPath()));
        struct stat status;
        ASSERT_EQ(stat(InboxPath().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0660u);
    }
    EXPECT_TRUE(fs::is_empty(m_root));
}

TEST_F(AnInbox, LeavesAFolderThatWasThere) {
    MakeInboxFolder();
    {
        Inbox inbox(m_root, "sdcm");
        ASSERT_EQ(inbox.Open(), Inbox::OURS);
    }
    EXPECT_TRUE(fs::is_directory(m_root + "/sdcm"));
    EXPECT_TRUE(fs::is_empty(m_root + "/sdcm"));
}

TEST_F(AnInbox, ReceivesWhatComesOnAnyConnection) {
    Inbox inbox(m_root, "sdcm");
    ASSERT_EQ(inbox.Open(), Inbox::OURS);
    Descriptor first, second;
    ASSERT_EQ(ConnectTo(InboxPath(), &first), 0);
    ASSERT_EQ(ConnectTo(InboxPath(), &second), 0);
    SendTo(first, "a");
    SendTo(second, "b");
    SendTo(first, "c");
    using Bytes = std::vector<unsigned char>;
    EXPECT_THAT(ReceiveAll(inbox), testing::UnorderedElementsAre(Bytes{'a'}, Bytes{'b'}, Bytes{'c'}));
    EXPECT_THAT(ReceiveAll(inbox), ElementsAre());
    first = Descriptor();
    SendTo(second, "d");
    EXPECT_THAT(ReceiveAll(inbox), ElementsAre(Bytes{'d'}));
}

TEST_F(AnInbox, KeepsWhatWasSentBeforeTheSenderLeft) {
    Inbox inbox(m_root, "sdcm");
    ASSERT_EQ(inbox.Open(), Inbox::OURS);
    {
        Descriptor sender;
        ASSERT_EQ(ConnectTo(InboxPath(), &sender), 0);
        SendTo(sender, "last");
    }
    EXPECT_EQ(ReceiveAll(inbox).size(), 1u);
}

TEST_F(AnInbox, IsWokenByConnectionsAndRecords) {
    Inbox inbox(m_root, "sdcm");
    ASSERT_EQ(inbox.Open(), Inbox::OURS);
    std::vector<pollfd> waits;
    inbox.AddTo(&waits);
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(poll(waits.data(), waits.size(), 0), 0);
    Descriptor sender;
    ASSERT_EQ(ConnectTo(InboxPath(), &sender), 0);
    EXPECT_EQ(poll(waits.data(), waits.size(), 0), 1);
    ReceiveAll(inbox);
    SendTo(sender, "x");
    waits.clear();
    inbox.AddTo(&waits);
    ASSERT_EQ(waits.size(), 2u);
    EXPECT_EQ(poll(waits.data(), waits.size(), 0), 1);
    EXPECT_NE(waits[1].revents, 0);
}

TEST_F(AnInbox, OfAPeerThatIsGoneIsReplaced) {
    LeaveStaleSocket();
    Inbox inbox(m_root, "sdcm");
    ASSERT_EQ(inbox.Open(), Inbox::OURS);
    Descriptor sender;
    EXPECT_EQ(ConnectTo(InboxPath(), &sender), 0);
}

TEST_F(AnInbox, OfALivePeerIsLeftAlone) {
    MakeInboxFolder();
    Descriptor peer;
    ASSERT_EQ(ListenAt(InboxPath(), &peer), 0);
    {
        Inbox inbox(m_root, "sdcm");
        EXPECT_EQ(inbox.Open(), Inbox::THEIRS);
    }
    Descriptor sender;
    EXPECT_EQ(ConnectTo(InboxPath(), &sender), 0);
}

TEST_F(AnInbox, OfASecondOneOfUsIsTheFirstOnes) {
    Inbox first(m_root, "sdcm"), second(m_root, "sdcm");
    EXPECT_EQ(first.Open(), Inbox::OURS);
    EXPECT_EQ(second.Open(), Inbox::THEIRS);
}

TEST_F(AnInbox, IsNotLookedAtWhileAnotherOneOfUsDoes) {
    MakeInboxFolder();
    Inbox inbox(m_root, "sdcm");
    Descriptor other(open((m_root + "/sdcm").c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(flock(other.Get(), LOCK_EX), 0);
    auto opening = std::async(std::launch::async, [&] { return inbox.Open(); });
    EXPECT_EQ(opening.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_FALSE(fs::exists(InboxPath()));
    other = Descriptor();
    EXPECT_EQ(opening.get(), Inbox::OURS);
}

TEST_F(AnInbox, TakesNoMoreConnectionsThanAServiceMayNeed) {
    Inbox inbox(m_root, "sdcm");
    ASSERT_EQ(inbox.Open(), Inbox::OURS);
    std::vector<Descriptor> crowd(17);
    for (Descriptor& one : crowd) {
        ASSERT_EQ(ConnectTo(InboxPath(), &one), 0);
        ReceiveAll(inbox);
    }
    char byte;
    EXPECT_EQ(recv(crowd[15].Get(), &byte, 1, MSG_DONTWAIT), -1);  // it stays
    EXPECT_EQ(recv(crowd[16].Get(), &byte, 1, MSG_DONTWAIT), 0);   // turned away
}

TEST_F(AnInbox, WithAStreamSocketInItsPlaceIsSomebodyElses) {
    MakeInboxFolder();
    const Descriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr address{AF_UNIX, {}};
    const std::string path = "sdcm/usb";
    fs::path before = fs::current_path();
    fs::current_path(m_root);
    std::copy(path.begin(), path.end(), address.sa_data);
    ASSERT_EQ(bind(listener.Get(), &address, static_cast<socklen_t>(sizeof(sa_family_t) + path.size() + 1)),
              0);
    fs::current_path(before);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    Inbox inbox(m_root, "sdcm");
    EXPECT_EQ(inbox.Open(), Inbox::THEIRS);
    EXPECT_TRUE(fs::is_socket(InboxPath()));
}

TEST_F(AnInbox, ThatThePeerTookMeanwhileStaysThePeers) {
    Descriptor peer;
    {
        Inbox inbox(m_root, "sdcm");
        ASSERT_EQ(inbox.Open(), Inbox::OURS);
        fs::rename(InboxPath(), m_root + "/old");  // keeps the inode in use
        ASSERT_EQ(ListenAt(InboxPath(), &peer), 0);
    }
    EXPECT_TRUE(fs::is_socket(InboxPath()));
}

TEST_F(AnInbox, IsNotMadeInPlaceOfAFile) {
    MakeInboxFolder();
    std::ofstream(InboxPath()) << "precious";
    Inbox inbox(m_root, "sdcm");
    EXPECT_EQ(inbox.Open(), Inbox::DENIED);
    EXPECT_EQ(inbox.Problem(), InboxPath() + " is no socket");
    EXPECT_EQ(fs::file_size(InboxPath()), 8u);
}

TEST_F(AnInbox, WithoutAFolderAboveSaysSo) {
    Inbox inbox(m_root + "/none", "sdcm");
    EXPECT_EQ(inbox.Open(), Inbox::DENIED);
    EXPECT_THAT(inbox.Problem(), HasSubstr("no inbox " + m_root + "/none/sdcm: No such file or directory"));
}

TEST_F(AnInbox, WithATooLongPathSaysSo) {
    const std::string root = m_root + "/" + std::string(110, 'x');
    fs::create_directory(root);
    Inbox inbox(root, "sdcm");
    EXPECT_EQ(inbox.Open(), Inbox::DENIED);
    EXPECT_THAT(inbox.Problem(), HasSubstr("File name too long"));
}

// --- the way to the service ---

class TheService : public Folder {
protected:
    TheService() { fs::create_directory(m_root + "/usb"); }
    std::string Path() const { return m_root + "/usb/diag"; }
    void Listen() { ASSERT_EQ(ListenAt(Path(), &m_listener), 0); }
    Descriptor Accept() const { return Descriptor(accept(m_listener.Get(), nullptr, nullptr)); }

    Descriptor m_listener;
};

constexpr std::chrono::milliseconds kShort{30};
constexpr std::chrono::milliseconds kLong{5000};
const unsigned char kRecord[] = {1, 2, 3};

TEST_F(TheService, IsNotThere) {
    ServiceSocket service(m_root, "diag");
    EXPECT_FALSE(service.Connect());
    EXPECT_EQ(service.Problem(), "there is no socket " + Path() +
                                     ": the service does not run, or has another folder (KIPC_DIR)");
}

TEST_F(TheService, LeftItsSocket) {
    Listen();
    m_listener = Descriptor();
    ServiceSocket service(m_root, "diag");
    EXPECT_FALSE(service.Connect());
    EXPECT_EQ(service.Problem(), "nobody listens at " + Path() + ": the service does not run");
}

TEST_F(TheService, ReadsAndTakesTheRecord) {
    Listen();
    ServiceSocket service(m_root, "diag");
    ASSERT_TRUE(service.Connect());
    ASSERT_TRUE(service.Send(kRecord));
    {
        const Descriptor connection = Accept();
        unsigned char bytes[8];
        EXPECT_EQ(recv(connection.Get(), bytes, sizeof bytes, 0), 3);
    }
    EXPECT_TRUE(service.WaitUntilTaken(kLong));
}

TEST_F(TheService, ClosesWithoutReading) {
    Listen();
    ServiceSocket service(m_root, "diag");
    ASSERT_TRUE(service.Connect());
    ASSERT_TRUE(service.Send(kRecord));
    Accept();
    EXPECT_FALSE(service.WaitUntilTaken(kLong));
    EXPECT_EQ(service.Problem(),
              "the service closed the connection without reading: diag has too many connections, or it has "
              "just ended");
}

TEST_F(TheService, TurnsAwayBeforeAnythingIsSent) {
    Listen();
    ServiceSocket service(m_root, "diag");
    ASSERT_TRUE(service.Connect());
    Accept();
    EXPECT_FALSE(service.Send(kRecord));
    EXPECT_THAT(service.Problem(), HasSubstr("turned the connection away: diag has too many"));
}

TEST_F(TheService, DoesNotRead) {
    Listen();
    ServiceSocket service(m_root, "diag");
    ASSERT_TRUE(service.Connect());
    ASSERT_TRUE(service.Send(kRecord));
    const Descriptor connection = Accept();
    EXPECT_FALSE(service.WaitUntilTaken(kShort));
    EXPECT_EQ(service.Problem(), "the service does not read what diag sends");
}

TEST_F(TheService, ShowsAsAListingDoesWhoMayConnect) {
    Listen();
    EXPECT_THAT(OwnershipOf(Path()), testing::StartsWith("srw-rw---- "));
    fs::permissions(Path(), fs::perms(0751));
    EXPECT_THAT(OwnershipOf(Path()), testing::MatchesRegex("srwxr-x--x [^ ]+ [^ ]+"));
    EXPECT_EQ(OwnershipOf(Path() + "/x"), "Not a directory");
}

}  // namespace
}  // namespace kipcsend
