#include "item/UListItem.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "ItemBench.h"

using namespace dcm::usb;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace test {
namespace {

struct UListItemTest : ItemBench {};

// --- finding ---

TEST_F(UListItemTest, FindsTheFirstItemOfAKindOnAPort) {
    Add(ITEM_CH_TIMEOUT, 2);
    Add(ITEM_CH_TIMEOUT, 12);
    Add(ITEM_CARPLAY_TIMEOUT, 1);
    const auto port_found = [](E_ITEM kind, std::uint8_t port, bool modulo) {
        UItem* item = List().FindItem(kind, port, modulo);
        return item ? static_cast<int>(item->GetPort()) : -1;
    };
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 2, false), 2);
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 12, false), 12);
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 1, false), -1);
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 0, false), 2) << "any port";
    EXPECT_EQ(port_found(ITEM_CARPLAY_TIMEOUT, 0, true), 1);
    EXPECT_EQ(port_found(ITEM_CUTTING, 0, true), -1);
    List().DeleteItem(ITEM_CH_TIMEOUT, 2);
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 2, false), -1);
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 2, true), 12) << "12 is a 2 by its units digit";
    EXPECT_EQ(port_found(ITEM_CH_TIMEOUT, 32, true), -1) << "but 32 is not asked for by its own";
}

// --- adding ---

struct Pair {
    std::uint8_t there;
    std::uint8_t second;
    bool refused_exactly;
    bool refused_by_digit;
};

const Pair kPairs[] = {
    {1, 1, true, true},      {1, 2, false, false},   {2, 1, false, false},   {1, 11, false, false},
    {11, 1, false, true},    {11, 21, false, false}, {21, 11, false, false}, {21, 1, false, true},
    {11, 11, true, true},    {2, 12, false, false},  {12, 2, false, true},   {12, 32, false, false},
    {32, 12, false, false},  {32, 2, false, true},   {32, 32, true, true},   {32, 3, false, false},
    {1, 0, true, true},      {32, 0, true, true},    {0, 1, false, false},   {0, 0, true, true},
    {10, 20, false, false},  {10, 0, true, true},    {0, 10, false, false},  {255, 5, false, true},
    {5, 255, false, false},  {255, 255, true, true}, {99, 9, false, true},   {9, 99, false, false},
    {100, 10, false, false},
};

TEST_F(UListItemTest, RefusesASecondItemOfTheSamePort) {
    for (const E_ITEM kind : kAllKinds) {
        for (const Pair& pair : kPairs) {
            SCOPED_TRACE(Format("kind %d: %d, then %d", static_cast<int>(kind), pair.there, pair.second));
            Add(kind, pair.there);
            UItem* const there = List().FindItem(kind, 0, false);
            ASSERT_TRUE(there);
            ClearLogs();
            ClearPackets();
            Add(kind, pair.second);
            const bool refused = kind == ITEM_VOLTAGE_SUPPLY ? true
                                 : kind == ITEM_OVER_CURRENT ? pair.refused_exactly
                                                             : pair.refused_by_digit;
            if (refused) {
                EXPECT_THAT(Logs(), ElementsAre(Line(160, Format("port:%d already exists", pair.second))));
                EXPECT_THAT(Packets(), IsEmpty());
            } else {
                EXPECT_THAT(Logs(160), IsEmpty());
                EXPECT_TRUE(Has(kind, pair.second));
                EXPECT_THAT(Logs().back().text, ::testing::EndsWith(" list_size:2"));
            }
            EXPECT_EQ(List().FindItem(kind, 0, false), there) << "the first one stays";
            List().DeleteItem(kind, 0);
        }
    }
}

TEST_F(UListItemTest, TakesAllKindsForOnePort) {
    for (const E_ITEM kind : kAllKinds)
        Add(kind, 1);
    EXPECT_THAT(Logs(160), IsEmpty());
    for (const E_ITEM kind : kAllKinds)
        EXPECT_EQ(List().FindItem(kind, 1, false)->GetKind(), kind);
    EXPECT_EQ(Logs().back(), Line(128, "port:1 list_size:7"));
}

TEST_F(UListItemTest, SaysWhatItTook) {
    List().AddVoltageItem(Notifier(), 3, false);
    List().AddOverCurrentItem(Notifier(), 32, "/devices/x");
    Add(ITEM_MOUNT_ERROR, 1);
    Add(ITEM_CUTTING, 2);
    Add(ITEM_CH_TIMEOUT, 3);
    Add(ITEM_CARPLAY_TIMEOUT, 4);
    Add(ITEM_CARPLAY_CAPA, 12);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:3 isHubDetect:0 list_size:1"),
                                    Line(128, "oc_path:/usb1/1-1/1-1:1.0/1-1-port32/overcurrent"),
                                    Line(128, "over_current[ff]"),
                                    Line(128, "port:32 devpath:/devices/x list_size:2"),
                                    Line(128, "port:1 list_size:3"), Line(128, "port:2 list_size:4"),
                                    Line(128, "port:3 list_size:5"), Line(128, "port:4 list_size:6"),
                                    Line(128, "port:12 list_size:7")));
}

TEST_F(UListItemTest, RefusesToMakeAnItemOfNothing) {
    UMsgNode node{};
    st_storage_pkt packet{};
    List().AddOverCurrentItem(nullptr, 1, "/devices/x");
    List().AddChTimeoutItem(nullptr, 1);
    List().AddCarplayTimeoutItem(nullptr, 1);
    List().AddCarplayCapaItem(nullptr, 1);
    List().AddVoltageItem(nullptr, 1, true);
    List().AddCuttingItem(nullptr, 1, &node);
    List().AddMountErrorItem(nullptr, 1, &packet);
    List().AddMountErrorItem(nullptr, 1, nullptr);
    EXPECT_THAT(Logs(), AllOf(SizeIs(8), Each(Line(192, "notifier is null"))));
    ClearLogs();
    List().AddOverCurrentItem(Notifier(), 1, nullptr);
    List().AddCuttingItem(Notifier(), 1, nullptr);
    List().AddMountErrorItem(Notifier(), 1, nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "devpath is null"), Line(192, "pkt is null"),
                                    Line(192, "pkt is null")));
    for (const E_ITEM kind : kAllKinds)
        EXPECT_FALSE(Has(kind, 0));
}

TEST_F(UListItemTest, StaysAsItIsWhenThereIsNoMemoryForAnItem) {
    Add(ITEM_CH_TIMEOUT, 2);
    for (const E_ITEM kind : kAllKinds) {
        SCOPED_TRACE(kind);
        ClearLogs();
        outside.nothrow_new_fails = true;
        Add(kind, 1);
        outside.nothrow_new_fails = false;
        EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to new item instance")));
        EXPECT_FALSE(Has(kind, 1));
    }
    EXPECT_THAT(Packets(), IsEmpty());
    ClearLogs();
    Add(ITEM_CUTTING, 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:1 list_size:2")));
}

TEST_F(UListItemTest, StaysAsItIsWhenItCannotGrow) {
    for (const E_ITEM kind : kAllKinds) {
        SCOPED_TRACE(kind);
        ClearLogs();
        outside.new_fails_for = sizeof(UItem*);  // room for one item
        Add(kind, 1);
        outside.new_fails_for = 0;
        EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to new item instance")));
        EXPECT_FALSE(Has(kind, 1)) << "and the lock is free again";
    }
    EXPECT_THAT(Packets(), IsEmpty()) << "no over-current is reported that is not watched";
}

// --- deleting ---

TEST_F(UListItemTest, DeletesTheItemOfExactlyThisPort) {
    for (const E_ITEM kind : kAllKinds) {
        if (kind == ITEM_VOLTAGE_SUPPLY) continue;  // there is never a second one
        SCOPED_TRACE(kind);
        const int number = static_cast<int>(kind);
        Add(kind, 2);
        Add(kind, 12);
        Add(kind, 1);
        ClearLogs();
        List().DeleteItem(kind, 22);
        EXPECT_THAT(Logs(), IsEmpty());
        List().DeleteItem(kind, 2);
        EXPECT_EQ(Logs().front(), Line(128, Format("item:%d port:2 terminated list_size:2", number)));
        ClearLogs();
        List().DeleteItem(kind, 2);
        EXPECT_THAT(Logs(), IsEmpty()) << "12 is not 2 here";
        EXPECT_TRUE(Has(kind, 12));
        EXPECT_TRUE(Has(kind, 1));
        List().DeleteItem(kind, 0);
    }
}

TEST_F(UListItemTest, DeletesAllItemsOfAKindForPortZero) {
    Add(ITEM_CUTTING, 1);
    Add(ITEM_CH_TIMEOUT, 1);
    Add(ITEM_CUTTING, 2);
    Add(ITEM_CUTTING, 3);
    Add(ITEM_CARPLAY_CAPA, 1);
    ClearLogs();
    List().DeleteItem(ITEM_CUTTING, 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "item:4 port:1 terminated list_size:4"),
                                    Line(128, "item:4 port:2 terminated list_size:3"),
                                    Line(128, "item:4 port:3 terminated list_size:2")));
    EXPECT_FALSE(Has(ITEM_CUTTING, 0));
    EXPECT_TRUE(Has(ITEM_CH_TIMEOUT, 1));
    EXPECT_TRUE(Has(ITEM_CARPLAY_CAPA, 1));
}

TEST_F(UListItemTest, RefusesToDeleteAKindThatThereIsNot) {
    for (const E_ITEM kind : kAllKinds)
        Add(kind, 1);
    ClearLogs();
    List().DeleteItem(static_cast<E_ITEM>(0), 1);
    List().DeleteItem(static_cast<E_ITEM>(8), 0);
    List().DeleteItem(static_cast<E_ITEM>(255), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "item:0 is invalid"), Line(192, "item:8 is invalid"),
                                    Line(192, "item:255 is invalid")));
    for (const E_ITEM kind : kAllKinds)
        EXPECT_TRUE(Has(kind, 1));
}

TEST_F(UListItemTest, TellsOfADeletionBeforeTheItemsLastWords) {
    Add(ITEM_OVER_CURRENT, 1);
    ClearLogs();
    List().DeleteItem(ITEM_OVER_CURRENT, 1);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "item:2 port:1 terminated list_size:0"), Line(128, "over_current[0]")));
}

TEST_F(UListItemTest, DeletesEverything) {
    for (const E_ITEM kind : kAllKinds)
        Add(kind, 1);
    List().DeleteAllItems();
    for (const E_ITEM kind : kAllKinds)
        EXPECT_FALSE(Has(kind, 0));
    Add(ITEM_CUTTING, 1);
    EXPECT_EQ(Logs().back(), Line(128, "port:1 list_size:1"));
}

// --- running ---

// Does what the test says, and writes down that it ran and that it was deleted.
struct Probe : UItem {
    Probe(std::string name, std::vector<std::string>& deeds, int result = 0, E_ITEM kind = ITEM_CUTTING)
        : UItem(kind, nullptr, 1), m_name(std::move(name)), m_deeds(deeds), m_result(result) {}
    ~Probe() override { m_deeds.push_back("no more " + m_name); }
    int Process() override {
        m_deeds.push_back(m_name);
        return m_result;
    }
    const std::string m_name;
    std::vector<std::string>& m_deeds;
    int m_result;
};

// A list into which a test puts anything.
struct OpenList : UListItem {
    using UListItem::m_lists;
};

struct UListItemPass : ItemBench {
    void SetUp() override {
        ItemBench::SetUp();
        UListItem::Release();  // there is only one
        m_list = std::make_unique<OpenList>();
    }
    void TearDown() override {
        m_list.reset();
        ItemBench::TearDown();
    }
    Probe* Put(const std::string& name, int result = 0, E_ITEM kind = ITEM_CUTTING) {
        auto* item = new Probe(name, m_deeds, result, kind);
        m_list->m_lists.push_back(item);
        return item;
    }
    std::unique_ptr<OpenList> m_list;
    std::vector<std::string> m_deeds;
};

TEST_F(UListItemPass, RunsEachItemOnceInTheOrderInWhichTheyCame) {
    Put("a");
    Put("b", 0, ITEM_VOLTAGE_SUPPLY);
    Put("c", 0, ITEM_CARPLAY_CAPA);
    m_list->ProcessItems();
    EXPECT_THAT(m_deeds, ElementsAre("a", "b", "c"));
    m_list->ProcessItems();
    EXPECT_THAT(m_deeds, ElementsAre("a", "b", "c", "a", "b", "c"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UListItemPass, RunsTheItemBehindOneThatEnds) {
    Put("a", 1);
    Put("b", -1);
    Put("c");
    Put("d", 7);
    m_list->ProcessItems();
    EXPECT_THAT(m_deeds, ElementsAre("a", "no more a", "b", "no more b", "c", "d", "no more d"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port1 terminated list_size:3"),
                                    Line(128, "port1 terminated list_size:2"),
                                    Line(128, "port1 terminated list_size:1")));
    m_deeds.clear();
    m_list->ProcessItems();
    EXPECT_THAT(m_deeds, ElementsAre("c"));
}

TEST_F(UListItemPass, HasNothingToDoWithAnEmptyList) {
    m_list->ProcessItems();
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UListItemPass, EndsAtAnEmptyPlace) {
    Put("a");
    m_list->m_lists.push_back(nullptr);
    Put("b");
    m_list->ProcessItems();
    EXPECT_THAT(m_deeds, ElementsAre("a"));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "cur_item is null")));
}

TEST_F(UListItemPass, LooksForNothingBehindAnEmptyPlace) {
    Put("a");
    m_list->m_lists.push_back(nullptr);
    Put("b", 0, ITEM_CH_TIMEOUT);
    EXPECT_TRUE(m_list->FindItem(ITEM_CUTTING, 1, false));
    EXPECT_THAT(Logs(), IsEmpty());
    EXPECT_FALSE(m_list->FindItem(ITEM_CH_TIMEOUT, 1, false));
    m_list->DeleteItem(ITEM_CH_TIMEOUT, 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "cur_item is null"), Line(192, "cur_item is null")));
    ClearLogs();
    m_list->DeleteOverCurrentItem("/devices/x");
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "devpath:/devices/x"), Line(192, "cur_item is null")));
    EXPECT_THAT(m_deeds, IsEmpty());
    m_list->DeleteItem(ITEM_CUTTING, 1);
    EXPECT_THAT(m_deeds, ElementsAre("no more a"))
        << "what stands before it is reached, and the lock is free";
}

// In a process of its own: the pass never returns there.
template <typename Enter>
void ExitWhenThePassStays(const std::string& text, Enter enter) {
    std::thread([text] {
        for (;;) {
            const std::vector<LogLine> lines = Logs(160);
            if (lines.size() < 3) continue;
            for (const LogLine& line : lines)
                if (!(line == Line(160, text))) std::_Exit(1);
            std::_Exit(42);
        }
    }).detach();
    enter();
    std::_Exit(2);
}

TEST_F(UListItemPass, StaysAtAnItemOfAnUnknownKind) {
    Put("a", 0, static_cast<E_ITEM>(8));
    EXPECT_EXIT(ExitWhenThePassStays("unknown item:8", [this] { m_list->ProcessItems(); }),
                ::testing::ExitedWithCode(42), "");
}

TEST_F(UListItemPass, StaysAtASecondVoltageItem) {
    Put("a", 0, ITEM_VOLTAGE_SUPPLY);
    Put("b", 0, ITEM_VOLTAGE_SUPPLY);
    EXPECT_EXIT(ExitWhenThePassStays("already handle voltage_supply", [this] { m_list->ProcessItems(); }),
                ::testing::ExitedWithCode(42), "");
}

TEST_F(UListItemPass, DeletesWhatIsLeftInTheEnd) {
    Put("a");
    m_list->m_lists.push_back(nullptr);
    Put("b");
    m_list.reset();
    EXPECT_THAT(m_deeds, ElementsAre("no more a", "no more b"));
    EXPECT_THAT(Logs(), IsEmpty());
}

// --- the lock ---

TEST_F(UListItemTest, SaysWhenItHasNoLock) {
    UListItem::Release();
    fail_mutex_init = true;
    List();
    fail_mutex_init = false;
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
    ClearLogs();
    fail_mutex_destroy = true;
    UListItem::Release();
    fail_mutex_destroy = false;
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to destroy mutex")));
}

TEST_F(UListItemTest, IsUsedByManyThreadsAtOnce) {
    ResetPlatform(255);  // no log: it would keep the threads apart
    std::atomic<bool> done = false;
    std::thread passes([&done] {
        while (!done)
            List().ProcessItems();
    });
    std::vector<std::thread> users;
    for (std::uint8_t port = 1; port <= 3; ++port)
        users.emplace_back([this, port] {
            for (int time = 0; time < 300; ++time) {
                for (const E_ITEM kind : kAllKinds)
                    if (kind != ITEM_VOLTAGE_SUPPLY || port == 1) Add(kind, port);
                for (const E_ITEM kind : kAllKinds) {
                    if (kind == ITEM_VOLTAGE_SUPPLY && port != 1) continue;
                    EXPECT_TRUE(Has(kind, port));
                    List().DeleteItem(kind, port);
                    EXPECT_FALSE(Has(kind, port));
                }
            }
        });
    for (std::thread& user : users)
        user.join();
    done = true;
    passes.join();
    for (const E_ITEM kind : kAllKinds)
        EXPECT_FALSE(Has(kind, 0));
}

}  // namespace
}  // namespace test
