#include "node/UListNode.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "NodeBench.h"
#include "Wraps.h"
#include "node/UNodeBlock.h"
#include "platform/trace.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace test {
namespace {

class UListNodeTest : public NodeBench {
protected:
    void SetUp() override {
        outside = {};
        NodeBench::SetUp();
    }
    void TearDown() override {
        outside = {};
        NodeBench::TearDown();
    }

    std::string ParentOf(const std::string& path) {
        UNode* node = Find(path);
        if (!node) return "not in the list";
        return node->GetParent() ? node->GetParent()->GetDevPath() : "none";
    }

    std::vector<std::string> Paths(const std::vector<UNode*>& nodes) {
        std::vector<std::string> paths;
        for (const UNode* node : nodes)
            paths.emplace_back(node->GetDevPath());
        return paths;
    }

    std::vector<std::string> ChildrenOf(const std::string& path) {
        std::vector<UNode*> children;
        const int count = List().FindChildNode(Find(path), children);
        EXPECT_EQ(static_cast<std::size_t>(count), children.size());
        return Paths(children);
    }

    UNodeUsb* UsbDevice(const std::string& path, Device device = {}) { return AddDevice(path, device); }

    UNode* Disk(const std::string& path) {
        FakeEvent event;
        event.subsystem = SUBSYSTEM_BLOCK;
        event.devpath = path;
        event.devname = "sda";
        event.block_devtype = BLOCK_DEVTYPE_DISK;
        return Add(event);
    }
};

TEST_F(UListNodeTest, MakesANodeOfTheSubsystemsClass) {
    const std::pair<E_SUBSYSTEM, bool> kinds[] = {{SUBSYSTEM_USB, true},
                                                  {SUBSYSTEM_BLOCK, true},
                                                  {SUBSYSTEM_HID, true},
                                                  {SUBSYSTEM_TTY, true},
                                                  {SUBSYSTEM_NET, true}};
    for (const auto& [subsystem, made] : kinds) {
        UNode* node = List().MakeNode(subsystem, "/devices/x", Notifier());
        ASSERT_TRUE(node) << subsystem;
        EXPECT_EQ(node->GetSubSystem(), subsystem);
        EXPECT_STREQ(node->GetDevPath(), "/devices/x");
        EXPECT_EQ(node->GetPort(), 0);
        EXPECT_EQ(node->GetParent(), nullptr);
        EXPECT_EQ(dynamic_cast<UNodeUsb*>(node) != nullptr, subsystem == SUBSYSTEM_USB);
        EXPECT_EQ(dynamic_cast<UNodeBlock*>(node) != nullptr, subsystem == SUBSYSTEM_BLOCK);
        delete node;
    }
    EXPECT_EQ(List().GetSize(), 0u);
}

TEST_F(UListNodeTest, ASubsystemWithoutAClassHasNoNodeAndNoLogLine) {
    for (unsigned subsystem = SUBSYSTEM_NONE; subsystem <= SUBSYSTEM_NET + 1u; ++subsystem) {
        if (subsystem == SUBSYSTEM_USB || subsystem == SUBSYSTEM_BLOCK || subsystem == SUBSYSTEM_HID ||
            subsystem == SUBSYSTEM_TTY || subsystem == SUBSYSTEM_NET)
            continue;
        EXPECT_EQ(List().MakeNode(static_cast<E_SUBSYSTEM>(subsystem), "/devices/x", Notifier()), nullptr);
    }
    EXPECT_THAT(Logs(), IsEmpty());
    EXPECT_EQ(Insert(SUBSYSTEM_SCSI, "/devices/x"), nullptr);
    EXPECT_EQ(List().GetSize(), 0u);
    EXPECT_TRUE(Insert("/devices/y"));  // the lock was given back
}

TEST_F(UListNodeTest, WithoutAPathThereIsNoNode) {
    EXPECT_EQ(List().MakeNode(SUBSYSTEM_NET, nullptr, Notifier()), nullptr);
    EXPECT_EQ(List().InsertNode(SUBSYSTEM_NET, nullptr, Notifier()), nullptr);
    EXPECT_EQ(List().InsertNode(SUBSYSTEM_TTY, "", Notifier()), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "devpath is null"), Line(192, "devpath is null"),
                                    Line(192, "devpath is null")));
    EXPECT_EQ(List().FindNode(nullptr), nullptr);
    EXPECT_EQ(List().FindNode(""), nullptr);
    List().RemoveNode(nullptr);
    EXPECT_EQ(List().GetSize(), 0u);
    EXPECT_THAT(PortMessages(), IsEmpty());
}

TEST_F(UListNodeTest, SaysForWhichClassTheMemoryRanOut) {
    outside.nothrow_new_fails = true;
    for (const E_SUBSYSTEM subsystem :
         {SUBSYSTEM_USB, SUBSYSTEM_BLOCK, SUBSYSTEM_HID, SUBSYSTEM_TTY, SUBSYSTEM_NET})
        EXPECT_EQ(Insert(subsystem, "/devices/x"), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed new nodeusb instance"),
                                    Line(192, "failed to new nodeblock instance"),
                                    Line(192, "failed to new nodehidraw instance"),
                                    Line(192, "failed to new nodetty instance"),
                                    Line(192, "failed to new nodenet instance")));
    outside.nothrow_new_fails = false;
    EXPECT_TRUE(Insert("/devices/x"));  // the lock was given back each time
}

TEST_F(UListNodeTest, SaysWhichNodeCameBelowWhichAndHowManyThereAre) {
    const void* const above = Insert("/a");
    const void* const below = Insert("/a/b");
    EXPECT_THAT(Logs(), Wrote(128, Format("[%p]->p[%p], size[1]", above, static_cast<void*>(nullptr))));
    EXPECT_THAT(Logs(), Wrote(128, Format("[%p]->p[%p], size[2]", below, above)));
    EXPECT_THAT(Logs(), Wrote(32, Format("constructor ptr:%p", above)));
}

TEST_F(UListNodeTest, AnAddForAKnownPathGivesTheSameNodeAndChangesNothing) {
    UNode* const node = Insert("/a");
    Insert("/b");
    ClearLogs();
    EXPECT_EQ(Insert(SUBSYSTEM_USB, "/a"), node);
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "already exists")));
    EXPECT_EQ(node->GetSubSystem(), SUBSYSTEM_NET);
    EXPECT_THAT(Paths(List().GetNodes()), ElementsAre("/a", "/b"));
}

TEST_F(UListNodeTest, WhoComesLaterAdoptsNobody) {
    Insert("/a");
    Insert("/a/b/c");
    Insert("/a/b");
    EXPECT_EQ(ParentOf("/a/b"), "/a");
    EXPECT_EQ(ParentOf("/a/b/c"), "/a");
    EXPECT_THAT(ChildrenOf("/a"), ElementsAre("/a/b/c", "/a/b"));
}

TEST_F(UListNodeTest, TheParentIsTheDeepestWhateverTheOrder) {
    const std::string above[] = {"/a", "/a/b"};
    for (const bool swapped : {false, true}) {
        Insert(above[swapped]);
        Insert(above[!swapped]);
        Insert("/a/b/c");
        EXPECT_EQ(ParentOf("/a/b/c"), "/a/b");
        List().RemoveAllNodes();
    }
}

TEST_F(UListNodeTest, AParentIsAnyPathThatTheOtherBeginsWith) {
    Insert("/x/sda");
    Insert("/x/sdaa");
    Insert("/x/1-1.1");
    Insert("/x/1-1.10");
    Insert("/x/1-1.2");
    EXPECT_EQ(ParentOf("/x/sdaa"), "/x/sda");
    EXPECT_EQ(ParentOf("/x/1-1.10"), "/x/1-1.1");
    EXPECT_EQ(ParentOf("/x/1-1.2"), "none");
    Remove("/x/sda");
    EXPECT_THAT(Paths(List().GetNodes()), ElementsAre("/x/1-1.1", "/x/1-1.10", "/x/1-1.2"));
}

TEST_F(UListNodeTest, RemovingAnUnknownPathDoesNothingAndSaysNothing) {
    Insert("/a");
    ClearLogs();
    Remove("/b");
    Remove("/a/b");
    Remove("/");
    EXPECT_THAT(Logs(), IsEmpty());
    EXPECT_EQ(List().GetSize(), 1u);
}

TEST_F(UListNodeTest, RemovingANodeTakesItsDirectChildrenAlong) {
    Insert("/b");
    const void* const node = Insert("/a");
    Insert("/a/1");
    Insert("/a/2");
    Insert("/a/1/x");
    ClearLogs();
    Remove("/a");
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "size[2]")));
    EXPECT_THAT(Logs(), Wrote(32, Format("destructor ptr:%p", node)));
    EXPECT_THAT(Paths(List().GetNodes()), ElementsAre("/b", "/a/1/x"));
    EXPECT_EQ(Find("/a"), nullptr);
    EXPECT_EQ(Find("/a/1"), nullptr);
}

TEST_F(UListNodeTest, GrandchildrenOfARemovedNodeForgetTheirParent) {
    Insert("/a");
    Insert("/a/1");
    UNode* const grandchild = Insert("/a/1/x");
    Insert("/a/1/x/y");
    Remove("/a");
    EXPECT_EQ(grandchild->GetParent(), nullptr);
    EXPECT_EQ(List().FindParentNode(grandchild, SUBSYSTEM_NONE), nullptr);
    EXPECT_EQ(ParentOf("/a/1/x/y"), "/a/1/x");
    Remove("/a/1/x");
    EXPECT_EQ(List().GetSize(), 0u);
}

TEST_F(UListNodeTest, ChildrenGoFirstInListOrderAndThenTheNode) {
    const void* const node = Insert("/t");
    const void* const first = Insert("/t/2");
    const void* const second = Insert("/t/1");
    ClearLogs();
    Remove("/t");
    EXPECT_THAT(Logs(32), ElementsAre(Line(32, Format("destructor ptr:%p", first)),
                                      Line(32, Format("destructor ptr:%p", second)),
                                      Line(32, Format("destructor ptr:%p", node))));
    EXPECT_EQ(List().GetSize(), 0u);
}

TEST_F(UListNodeTest, AllNodesGoFromTheBack) {
    UNode* const first = Insert("/a");
    UNode* const second = Insert("/a/b");
    UNode* const third = Insert("/c");
    const std::string gone[] = {Format("destructor ptr:%p", static_cast<void*>(third)),
                                Format("destructor ptr:%p", static_cast<void*>(second)),
                                Format("destructor ptr:%p", static_cast<void*>(first))};
    ClearLogs();
    List().RemoveAllNodes();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, gone[0]), Line(32, gone[1]), Line(32, gone[2])));
    EXPECT_EQ(List().GetSize(), 0u);
    List().RemoveAllNodes();
    UNode* const again = Insert("/a");
    EXPECT_EQ(Find("/a"), again);
}

TEST_F(UListNodeTest, WhatWasAskedForLastIsUnknownOnceItIsRemoved) {
    UNode* const above = Insert("/a");
    UNode* const below = Insert("/a/b");
    EXPECT_EQ(Find("/a/b"), below);
    EXPECT_EQ(Find("/a/"), nullptr);
    EXPECT_EQ(Find("/a/bc"), nullptr);
    EXPECT_EQ(Find("/a/b"), below);
    Remove("/a/b");
    EXPECT_EQ(Find("/a/b"), nullptr);
    Remove("/a/b");
    EXPECT_EQ(Find("/a"), above);
    Insert("/a/b");
    Remove("/a");  // takes the one along that came last
    EXPECT_EQ(Find("/a/b"), nullptr);
    EXPECT_EQ(Find("/a"), nullptr);
    UNode* const again = Insert("/a/b");
    EXPECT_EQ(Find("/a/b"), again);
    List().RemoveAllNodes();
    EXPECT_EQ(Find("/a/b"), nullptr);
}

TEST_F(UListNodeTest, ItsOwnEndTakesTheNodesAlong) {
    Insert(SUBSYSTEM_TTY, "/a");
    const void* const list = &List();
    ClearLogs();
    UListNode::Release();
    EXPECT_THAT(Logs(), Wrote(32, Format("destructor ptr:%p", list)));
    EXPECT_THAT(PortMessages(), ElementsAre(std::pair(25u, 0u)));
}

TEST_F(UListNodeTest, ALockThatCannotBeMadeOrUnmadeIsSaidAndTheListIsUsedAnyway) {
    UListNode::Release();
    ClearLogs();
    outside.mutex_init_fails = true;
    const void* const list = &List();
    outside.mutex_init_fails = false;
    EXPECT_THAT(Logs(),
                ElementsAre(Line(32, Format("constructor ptr:%p", list)), Line(192, "failed to init mutex")));
    UNode* const node = Insert("/a");
    EXPECT_EQ(Find("/a"), node);
    ClearLogs();
    outside.mutex_destroy_fails = true;
    UListNode::Release();
    outside.mutex_destroy_fails = false;
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to destroy mutex")));
}

TEST_F(UListNodeTest, FindsAUsbDeviceByTheUnitsDigitOfItsPort) {
    UNodeUsb* const hub_port = UsbDevice(kPort32, {0x04e8, 1});
    EXPECT_EQ(hub_port->GetPort(), 32);
    EXPECT_EQ(List().FindUsbNode(2, DEV_TYPE_NONE), hub_port);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_NONE), nullptr);
    EXPECT_EQ(List().FindUsbNode(32, DEV_TYPE_NONE), nullptr);
}

TEST_F(UListNodeTest, GivesAnotherThreadACopyOfWhatItMayKnowOfAUsbDevice) {
    UsbDevice(kPort32, {0x04e8, 0x6860});
    FoundUsbNode found{};
    EXPECT_TRUE(List().FindUsbNode(2, DEV_TYPE_NONE, found));
    EXPECT_EQ(found.port, 32);
    EXPECT_EQ(found.vid, 0x04e8);
    EXPECT_EQ(found.pid, 0x6860);
    EXPECT_FALSE(List().FindUsbNode(1, DEV_TYPE_NONE, found));
    EXPECT_FALSE(List().FindUsbNode(32, DEV_TYPE_NONE, found));
    EXPECT_FALSE(List().FindUsbNode(2, DEV_TYPE_PHONE, found));
    EXPECT_EQ(found.port, 32) << "what was not found changes nothing";
}

TEST_F(UListNodeTest, PortThreeIsAlsoThirteenAndTwentyThree) {
    for (const char* path : {"/1-1.3", "/1-1.3/1-1.3.1", "/1-1.3/1-1.3.2"}) {
        UNodeUsb* const node = UsbDevice(kHub + path, {0x1234, 1});
        EXPECT_EQ(node->GetPort() % 10, 3);
        EXPECT_EQ(List().FindUsbNode(3, DEV_TYPE_NONE), node);
        EXPECT_EQ(List().FindUsbNode(3, DEV_TYPE_ANY), node);
        List().RemoveAllNodes();
    }
}

TEST_F(UListNodeTest, AnyTypeOfDeviceIsAnyButAHub) {
    PlugIn(kPort1, {0x05e3, 0x0608, {{"09"}}});
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_ANY), nullptr);
    UNodeUsb* const hub = static_cast<UNodeUsb*>(Find(kPort1));
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_HUB), hub);
    UNodeUsb* const stick = PlugIn(kPort1 + "/1-1.1.4", {0x1234, 1, {{"08", "06", "50"}}});
    EXPECT_EQ(stick->GetPort(), 41);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_ANY), stick);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_STORAGE), stick);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_PHONE), nullptr);
}

TEST_F(UListNodeTest, AnInterfaceIsNoDevice) {
    AddInterface(kPort1, {0x1234, 1, {{}}}, 0);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_NONE), nullptr);
    EXPECT_EQ(List().FindUsbNode(1, DEV_TYPE_ANY), nullptr);
}

TEST_F(UListNodeTest, TheFirstOfSeveralDevicesIsFound) {
    UNodeUsb* const first = UsbDevice(kPort2, {0x1234, 1});
    UNodeUsb* const second = UsbDevice(kPort32, {0x1234, 2});
    EXPECT_EQ(List().FindUsbNode(2, DEV_TYPE_NONE), first);
    Remove(kPort2);  // takes the other along, as its path begins with this one's
    EXPECT_EQ(List().FindUsbNode(2, DEV_TYPE_NONE), nullptr);
    EXPECT_NE(first, second);
}

TEST_F(UListNodeTest, FindsATtyWhereverItIs) {
    EXPECT_EQ(List().FindTtyNode(), nullptr);
    Insert("/devices/net");
    UNode* const tty = Insert(SUBSYSTEM_TTY, "/devices/tty/ttyACM0");
    Insert(SUBSYSTEM_TTY, "/devices/tty/ttyACM1");
    EXPECT_EQ(List().FindTtyNode(), tty);
}

TEST_F(UListNodeTest, ANetworkNodeIsFoundByItsWholePort) {
    FakeEvent event;
    event.subsystem = SUBSYSTEM_NET;
    event.devpath = kHub + "/1-1.3/1-1.3.1";
    UNode* const node = Add(event);
    EXPECT_EQ(node->GetPort(), 13);
    EXPECT_EQ(List().FindNetNode(3), nullptr);
    EXPECT_EQ(List().FindNetNode(13), node);
}

TEST_F(UListNodeTest, FindsTheAncestorOfASubsystem) {
    UNode* const disk = Insert(SUBSYSTEM_BLOCK, "/u/i/d");
    EXPECT_EQ(List().FindParentNode(disk, SUBSYSTEM_NONE), nullptr);
    EXPECT_EQ(List().FindParentNode(disk, SUBSYSTEM_USB), nullptr);
    EXPECT_EQ(List().FindParentNode(nullptr, SUBSYSTEM_NONE), nullptr);
    List().RemoveAllNodes();

    UNode* const top = Insert("/u");
    UNode* const device = Insert(SUBSYSTEM_USB, "/u/i");
    UNode* const interface = Insert(SUBSYSTEM_USB, "/u/i/j");
    UNode* const child = Insert(SUBSYSTEM_BLOCK, "/u/i/j/d");
    EXPECT_EQ(List().FindParentNode(child, SUBSYSTEM_USB), interface);
    EXPECT_EQ(List().FindParentNode(interface, SUBSYSTEM_USB), device);  // not the node itself
    EXPECT_EQ(List().FindParentNode(child, SUBSYSTEM_NONE), top);
    EXPECT_EQ(List().FindParentNode(device, SUBSYSTEM_NONE), top);
    EXPECT_EQ(List().FindParentNode(child, SUBSYSTEM_TTY), nullptr);
}

TEST_F(UListNodeTest, FindsTheNearestUsbDeviceAndInterfaceTheNodeItselfIncluded) {
    const Device device{0x1234, 1, {{}}};
    UNodeUsb* const device_node = AddDevice(kPort1, device);
    UNodeUsb* const interface = AddInterface(kPort1, device, 0);
    UNode* const below = Insert(InterfacePath(kPort1, 0) + "/net/usb0");
    EXPECT_EQ(List().FindParentUsbDeviceNode(below), device_node);
    EXPECT_EQ(List().FindParentUsbDeviceNode(interface), device_node);
    EXPECT_EQ(List().FindParentUsbDeviceNode(device_node), device_node);
    EXPECT_EQ(List().FindParentUsbDeviceNode(nullptr), nullptr);
    EXPECT_EQ(List().FindParentUsbInterfaceNode(below), interface);
    EXPECT_EQ(List().FindParentUsbInterfaceNode(interface), interface);
    EXPECT_EQ(List().FindParentUsbInterfaceNode(device_node), nullptr);
    EXPECT_EQ(List().FindParentUsbInterfaceNode(nullptr), nullptr);
}

TEST_F(UListNodeTest, ChildrenAreDirectOnesInTheOrderInWhichTheyCame) {
    for (const char* path : {"/a", "/a/3", "/a/1", "/b", "/a/1/x", "/a/2"})
        Insert(path);
    EXPECT_THAT(ChildrenOf("/a"), ElementsAre("/a/3", "/a/1", "/a/2"));
    EXPECT_THAT(ChildrenOf("/b"), IsEmpty());
    Remove("/a/1");
    Insert("/a/1");
    EXPECT_THAT(ChildrenOf("/a"), ElementsAre("/a/3", "/a/2", "/a/1"));
    Remove("/a/3");
    EXPECT_THAT(ChildrenOf("/a"), ElementsAre("/a/2", "/a/1"));
    std::vector<UNode*> out{Find("/b")};
    EXPECT_EQ(List().FindChildNode(nullptr, out), 0);
    EXPECT_THAT(out, IsEmpty());
}

TEST_F(UListNodeTest, FindsTheMountedVolumeOfASocketAndCopiesItsDirectory) {
    char path[32] = "left over";
    EXPECT_EQ(List().FindTestMountedBlockNode(1, path, sizeof path), nullptr);
    EXPECT_STREQ(path, "");

    UNode* const first = Disk("/devices/1-1/1-1.2/host0/block/sda");
    UNode* const second = Disk("/devices/3-1/host1/block/sdb");
    EXPECT_EQ(List().FindTestMountedBlockNode(1), first);
    EXPECT_EQ(List().FindTestMountedBlockNode(2), second);
    EXPECT_EQ(List().FindTestMountedBlockNode(3), nullptr);
    EXPECT_EQ(List().FindTestMountedBlockNode(2, path, sizeof path), second);
    EXPECT_STREQ(path, "/tmp/USB/PORT0/PART1/");
    char small[6];
    EXPECT_EQ(List().FindTestMountedBlockNode(2, small, sizeof small), second);
    EXPECT_STREQ(small, "/tmp/");
}

TEST_F(UListNodeTest, AVolumeThatIsNotMountedIsNotFound) {
    outside.mount_result = 19;
    Disk("/devices/1-1/block/sda");
    EXPECT_EQ(outside.mounted, 1);
    EXPECT_EQ(List().FindTestMountedBlockNode(1), nullptr);
}

TEST_F(UListNodeTest, TakesATextOver) {
    char* member = nullptr;
    List().ReplaceText(member, strdup("first"));
    EXPECT_STREQ(member, "first");
    List().ReplaceText(member, strdup("second"));
    EXPECT_STREQ(member, "second");
    List().ReplaceText(member, nullptr);
    EXPECT_EQ(member, nullptr);
}

TEST_F(UListNodeTest, TheOrderSurvivesManyRemovals) {
    std::vector<std::string> left;
    for (int number = 0; number < 1000; ++number) {
        const std::string path = Format("/n%04d", number);
        Insert(path);
        if (number % 10 == 7) left.push_back(path);
    }
    for (int number = 0; number < 1000; ++number)
        if (number % 10 != 7) Remove(Format("/n%04d", number));
    EXPECT_EQ(Paths(List().GetNodes()), left);
    EXPECT_EQ(List().GetSize(), left.size());
}

TEST_F(UListNodeTest, ABaseNodeOnlySaysThatItWasTold) {
    UNode* const node = Insert("/a");
    FakeEvent event;
    ClearLogs();
    node->ActionChange(&event);
    node->UNode::ActionAdd(&event);
    const std::string told = Format("%p", static_cast<void*>(&event));
    EXPECT_THAT(Logs(), ElementsAre(Line(32, told), Line(32, told)));
}

// The same list, kept as plainly as can be: every question is answered by looking at all nodes.
class PlainList {
public:
    struct Entry {
        std::string path;
        const UNode* node;
        const UNode* parent;
    };

    void Insert(const std::string& path, const UNode* node) {
        const Entry* parent = nullptr;
        for (const Entry& other : m_entries) {
            if (!path.starts_with(other.path)) continue;
            if (!parent || other.path.starts_with(parent->path)) parent = &other;
        }
        const UNode* const above = parent ? parent->node : nullptr;
        m_entries.push_back({path, node, above});
    }

    void Remove(const std::string& path) {
        const UNode* const node = Find(path);
        if (!node) return;
        std::vector<Entry> left;
        std::vector<const UNode*> gone{node};
        for (const Entry& entry : m_entries)
            if (entry.parent == node) gone.push_back(entry.node);
        const auto is_gone = [&gone](const UNode* one) {
            return std::find(gone.begin(), gone.end(), one) != gone.end();
        };
        for (Entry& entry : m_entries) {
            if (is_gone(entry.node)) continue;
            if (is_gone(entry.parent)) entry.parent = nullptr;
            left.push_back(std::move(entry));
        }
        m_entries = std::move(left);
    }

    const UNode* Find(const std::string& path) const {
        for (const Entry& entry : m_entries)
            if (entry.path == path) return entry.node;
        return nullptr;
    }

    std::vector<const UNode*> Children(const UNode* node) const {
        std::vector<const UNode*> children;
        for (const Entry& entry : m_entries)
            if (entry.parent == node) children.push_back(entry.node);
        return children;
    }

    const std::vector<Entry>& Entries() const { return m_entries; }

private:
    std::vector<Entry> m_entries;
};

class AgainstAPlainList : public UListNodeTest {
protected:
    void SetUp() override {
        UListNodeTest::SetUp();
        ka_log_threshold = 256;  // ten thousands of lines that nobody reads
    }

    // Inserts the path, or removes it when it is there and `may_remove`.
    void Step(const std::string& path, bool may_remove) {
        const UNode* const known = m_plain.Find(path);
        ASSERT_EQ(Find(path), known) << path;
        if (known) {
            if (!may_remove) return;
            Remove(path);
            m_plain.Remove(path);
        } else {
            m_plain.Insert(path, Insert(path));
        }
        ASSERT_EQ(List().GetSize(), m_plain.Entries().size());
    }

    void ExpectEqual() {
        const std::vector<UNode*> nodes = List().GetNodes();
        ASSERT_EQ(nodes.size(), m_plain.Entries().size());
        for (std::size_t at = 0; at < nodes.size(); ++at) {
            const PlainList::Entry& entry = m_plain.Entries()[at];
            ASSERT_EQ(nodes[at], entry.node);
            ASSERT_EQ(nodes[at]->GetDevPath(), entry.path);
            ASSERT_EQ(nodes[at]->GetParent(), entry.parent) << entry.path;
            ASSERT_EQ(Find(entry.path), entry.node);
            std::vector<UNode*> children;
            List().FindChildNode(nodes[at], children);
            ASSERT_THAT(m_plain.Children(nodes[at]), ::testing::ElementsAreArray(children)) << entry.path;
        }
    }

    PlainList m_plain;
};

TEST_F(AgainstAPlainList, RandomPathsOfFewLettersHaveTheSameParentsAndChildren) {
    std::mt19937 random(20240517);
    for (int round = 0; round < 400; ++round) {
        const unsigned longest = 1 + random() % 40;
        for (int step = 0; step < 250; ++step) {
            std::string path;
            for (unsigned length = 1 + random() % longest; length > 0; --length)
                path += "aab/"[random() % 4];
            const auto& known = m_plain.Entries();
            if (!known.empty() && random() % 5 < 2) path = known[random() % known.size()].path;
            ASSERT_NO_FATAL_FAILURE(Step(path, random() % 4 != 0));
        }
        ASSERT_NO_FATAL_FAILURE(ExpectEqual());
        List().RemoveAllNodes();
        m_plain = {};
    }
}

TEST_F(AgainstAPlainList, ExtensionsAndPrefixesOfKnownPathsHaveTheSameParentsAndChildren) {
    std::mt19937 random(7);
    std::vector<std::string> seen{kHost};
    for (int step = 0; step < 1500; ++step) {
        std::string path = seen[random() % seen.size()];
        if (random() % 2 == 0 && path.size() < 300)
            path += std::string("/1-1.") + std::to_string(random() % 30);
        else
            path.resize(1 + random() % path.size());
        seen.push_back(path);
        ASSERT_NO_FATAL_FAILURE(Step(path, random() % 4 == 0));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectEqual());
}

TEST_F(AgainstAPlainList, EveryPrefixOfAPathCanBeItsParent) {
    const std::string path = "/devices/soc/7600000.hsusb/x";
    std::vector<std::size_t> lengths;
    for (std::size_t length = 1; length <= path.size(); ++length)
        lengths.push_back(length);
    std::mt19937 random(3);
    for (int round = 0; round < 50; ++round) {
        std::shuffle(lengths.begin(), lengths.end(), random);
        for (const std::size_t length : lengths)
            ASSERT_NO_FATAL_FAILURE(Step(path.substr(0, length), false));
        ASSERT_NO_FATAL_FAILURE(ExpectEqual());
        List().RemoveAllNodes();
        m_plain = {};
    }
}

TEST_F(AgainstAPlainList, PathsWithBytesAboveAsciiAndOfAllLengthsAreKept) {
    std::mt19937 random(11);
    for (std::size_t length = 1; length <= 2560; length += 1 + length / 8) {
        std::string path(length, '\xfe');
        for (char& byte : path)
            byte = static_cast<char>(1 + random() % 255);
        ASSERT_NO_FATAL_FAILURE(Step(path, false));
        ASSERT_NO_FATAL_FAILURE(Step(path + '\xff', false));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectEqual());
}

// The event frame changes nodes while the command frame looks for them: what the thread sanitizer watches.
TEST_F(UListNodeTest, OtherThreadsMayLookWhileNodesComeChangeAndGo) {
    ka_log_threshold = 256;
    std::atomic<bool> done = false;
    std::thread command_frame([this, &done] {
        char path[32];
        while (!done) {
            FoundUsbNode found{};
            if (List().FindUsbNode(1, DEV_TYPE_ANY, found)) {
                EXPECT_EQ(found.port, 1);
            }
            List().FindUsbNode(1, DEV_TYPE_ANY);
            List().FindTtyNode();
            List().FindNetNode(1);
            List().FindTestMountedBlockNode(1, path, sizeof path);
            List().FindNode(kPort1.c_str());
            std::this_thread::yield();  // the lock is not fair
        }
    });
    const Device stick{0x1234, 1, {{"08", "06", "50"}}};
    for (int round = 0; round < 50; ++round) {
        PlugIn(kPort1, stick);
        PlugIn(kPort1, stick);  // told twice
        FakeEvent net;
        net.subsystem = SUBSYSTEM_NET;
        net.devpath = InterfacePath(kPort1, 0) + "/net/usb0";
        Add(net);
        Insert(SUBSYSTEM_TTY, InterfacePath(kPort1, 0) + "/tty/ttyACM0");
        Disk(InterfacePath(kPort1, 0) + "/block/sda");
        Disk(InterfacePath(kPort1, 0) + "/block/sda");
        std::this_thread::yield();
        Remove(kPort1);
        List().RemoveAllNodes();
    }
    done = true;
    command_frame.join();
    EXPECT_EQ(List().GetSize(), 0u);
}

}  // namespace
}  // namespace test
