#include "platform/frame.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Bench.h"
#include "gmock/gmock.h"
#include "platform/kipc.h"

namespace frame {
namespace {

using test::CapturedLog;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::SizeIs;

std::string TakeText(Message* queue) {
    Message::Record record;
    return queue->take(&record) ? std::string(record.buf, record.len) : "nothing";
}

bool EndsInZeros(const Message::Record& record) {
    for (std::size_t i = 0; i < Message::kSlack; ++i)
        if (record.buf[record.len + i] != 0) return false;
    return true;
}

TEST(Message, GivesRecordsInTheOrderOfTheirArrivalWithTheirSources) {
    Message queue("usb");
    queue.push(4096, 3, "one");
    queue.push(0x800000, 3, "two");
    Message::Record record;
    ASSERT_TRUE(queue.take(&record));
    EXPECT_EQ(record.src, 4096u);
    EXPECT_EQ(std::string(record.buf, record.len), "one");
    ASSERT_TRUE(queue.take(&record));
    EXPECT_EQ(record.src, 0x800000u);
    EXPECT_EQ(std::string(record.buf, record.len), "two");
    EXPECT_FALSE(queue.take(&record));
}

TEST(Message, KeepsACopyOfTheRecord) {
    Message queue("usb");
    char text[] = "before";
    queue.push(1, 6, text);
    std::memcpy(text, "after!", 6);
    EXPECT_EQ(TakeText(&queue), "before");
}

TEST(Message, HandsOutAlignedRecordsWithZerosBehindThem) {
    Message queue("usb");
    const std::string dirt(5000, '\xFF');
    for (unsigned length : {5000u, 0u, 1u, 7u, 8u, 9u, 348u, 4096u}) {
        queue.push(1, length, dirt.data());
        Message::Record record;
        ASSERT_TRUE(queue.take(&record));
        EXPECT_EQ(record.len, length);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record.buf) % 8, 0u);
        EXPECT_TRUE(EndsInZeros(record)) << length;
        std::memset(record.buf, 0xEE,
                    record.len + Message::kSlack);  // what a handler does to it harms no later one
    }
}

TEST(Message, RefusesARecordWithoutBytesButTakesOneOfLengthZero) {
    CapturedLog log;
    Message queue("usb");
    queue.push(1, 4, nullptr);
    queue.push(2, 0, nullptr);
    EXPECT_EQ(queue.waiting(), 1u);
    EXPECT_THAT(log.Lines(), ElementsAre(EndsWith("queue usb: no bytes for a record of 4")));
}

TEST(Message, DropsTheNewestWhenFullAndSaysSoOncePerBurst) {
    CapturedLog log;
    Message queue("monitor");
    const std::string mebibyte(1024 * 1024 - 16, 'x');
    for (int i = 0; i < 16; ++i)
        queue.push(i, static_cast<unsigned>(mebibyte.size()), mebibyte.data());
    EXPECT_EQ(queue.dropped(), 0u);
    EXPECT_EQ(queue.high_water(), Message::kMaxBytes);
    EXPECT_THAT(log.Lines(), SizeIs(0));

    for (int i = 0; i < 3; ++i)
        queue.push(99, 0, "");
    EXPECT_EQ(queue.dropped(), 3u);
    EXPECT_EQ(queue.waiting(), 16u);
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("queue monitor is full: 16 records wait, new ones are lost")));

    Message::Record record;
    ASSERT_TRUE(queue.take(&record));
    EXPECT_EQ(record.src, 0u);  // the oldest stayed
    queue.push(16, 1, "y");
    EXPECT_THAT(log.LinesWith("lost"), SizeIs(2));
    EXPECT_THAT(log.Lines().back(), EndsWith("queue monitor lost 3 records"));

    for (int i = 1; i <= 16; ++i) {
        ASSERT_TRUE(queue.take(&record));
        EXPECT_EQ(record.src, static_cast<unsigned long>(i));
    }
    EXPECT_FALSE(queue.take(&record));
    queue.push(1, 1, "z");
    EXPECT_THAT(log.Lines(), SizeIs(2));  // the burst was over
}

TEST(Message, DropsARecordThatIsLargerThanTheQueue) {
    CapturedLog log;
    Message queue("usb");
    const std::string huge(Message::kMaxBytes, 'x');
    queue.push(1, static_cast<unsigned>(huge.size()), huge.data());
    EXPECT_EQ(queue.dropped(), 1u);
    queue.push(2, 2, "ok");
    EXPECT_EQ(TakeText(&queue), "ok");
}

TEST(Message, AllocatesNothingOnceItHasSeenItsUsualLoad) {
    Message queue("usb");
    const std::string bytes(364, 'x');
    const auto round = [&] {
        for (int i = 0; i < 300; ++i)
            queue.push(1, static_cast<unsigned>(bytes.size()), bytes.data());
        Message::Record record;
        while (queue.take(&record)) {
        }
    };
    round();
    const unsigned long before = test::g_allocations;
    for (int i = 0; i < 10; ++i)
        round();
    EXPECT_EQ(test::g_allocations - before, 0u);
}

TEST(Message, KeepsTheOrderOfEachOfFourProducers) {
    Message queue("usb");
    constexpr unsigned kCount = 5000;
    std::vector<std::thread> producers;
    for (unsigned long producer = 0; producer < 4; ++producer)
        producers.emplace_back([&queue, producer] {
            for (unsigned number = 0; number < kCount; ++number)
                queue.push(producer, sizeof number, reinterpret_cast<const char*>(&number));
        });
    unsigned next[4] = {};
    for (unsigned taken = 0; taken < 4 * kCount; ++taken) {
        Message::Record record;
        ASSERT_TRUE(queue.wait_and_take(&record));
        unsigned number = 0;
        ASSERT_EQ(record.len, sizeof number);
        std::memcpy(&number, record.buf, sizeof number);
        ASSERT_EQ(number, next[record.src]++);
    }
    for (std::thread& producer : producers)
        producer.join();
    EXPECT_EQ(queue.waiting(), 0u);
}

TEST(Message, StopWakesAWaitingReaderForGood) {
    Message queue("usb");
    std::thread reader([&queue] {
        Message::Record record;
        EXPECT_FALSE(queue.wait_and_take(&record));
    });
    queue.stop();
    reader.join();
    queue.push(1, 1, "x");
    Message::Record record;
    EXPECT_FALSE(queue.wait_and_take(&record));
}

class RecordingFrame : public Frame {
public:
    using Frame::Frame;
    void event_handler(unsigned long src, unsigned int len, char* buf) override {
        pthread_getname_np(pthread_self(), m_thread_name, sizeof m_thread_name);
        m_aligned &= reinterpret_cast<std::uintptr_t>(buf) % 8 == 0 && EndsInZeros({src, len, buf});
        if (len == 0)
            ++m_empty_calls;
        else
            m_texts.emplace_back(buf, len);
        ++m_calls;
        if (len == 4 && std::memcmp(buf, "stop", 4) == 0) stop();
    }
    // After join(), except the counters.
    std::vector<std::string> m_texts;
    std::atomic<unsigned> m_empty_calls{0};
    std::atomic<unsigned> m_calls{0};
    bool m_aligned = true;
    char m_thread_name[16] = "";
};

struct FrameTest : ::testing::Test {
    std::shared_ptr<kipc::Interface> none;  // frames only keep it
    Message queue{"usb"};
    const std::vector<QueueInfo> queues{{"usb", &queue}};
};

TEST_F(FrameTest, WaitingFrameIsCalledOncePerMessageInOrder) {
    RecordingFrame frame(none, BLOCK_WAIT, &queue, queues, nullptr);
    queue.push(1, 3, "one");
    frame.run();
    queue.push(1, 3, "two");
    queue.push(1, 4, "stop");
    frame.join();
    EXPECT_THAT(frame.m_texts, ElementsAre("one", "two", "stop"));
    EXPECT_EQ(frame.m_empty_calls, 0u);
    EXPECT_TRUE(frame.m_aligned);
    EXPECT_STREQ(frame.m_thread_name, "frame-usb");
}

TEST_F(FrameTest, NeverBlockingFrameIsCalledAgainAndAgainAndGetsWaitingMessages) {
    RecordingFrame frame(none, BLOCK_NEVER, &queue, nullptr);
    frame.run();
    EXPECT_TRUE(test::Eventually([&] { return frame.m_empty_calls > 10; }));
    queue.push(1, 3, "one");
    queue.push(1, 4, "stop");
    frame.join();
    EXPECT_THAT(frame.m_texts, ElementsAre("one", "stop"));
    EXPECT_TRUE(frame.m_aligned);
}

TEST_F(FrameTest, StopEndsAFrameThatWaits) {
    RecordingFrame frame(none, BLOCK_WAIT, &queue, nullptr);
    frame.run();
    frame.stop();
    frame.join();
    EXPECT_EQ(frame.m_calls, 0u);
}

TEST_F(FrameTest, StopEndsAFrameThatNeverBlocksAndLeavesItsQueueUsable) {
    RecordingFrame frame(none, BLOCK_NEVER, &queue, nullptr);
    frame.run();
    frame.stop();
    frame.join();
    queue.push(1, 1, "x");
    Message::Record record;
    EXPECT_TRUE(queue.wait_and_take(&record));
}

TEST_F(FrameTest, ConstructorStartsNothing) {
    queue.push(1, 3, "one");
    RecordingFrame frame(none, BLOCK_NEVER, &queue, nullptr);
    frame.join();
    EXPECT_EQ(frame.m_calls, 0u);
    EXPECT_EQ(queue.waiting(), 1u);
}

TEST_F(FrameTest, RefusesToRunTwiceOrToWaitWithoutAQueue) {
    CapturedLog log;
    RecordingFrame frame(none, BLOCK_WAIT, &queue, nullptr);
    frame.run();
    frame.run();
    frame.stop();
    frame.join();
    RecordingFrame blind(none, BLOCK_WAIT, nullptr, nullptr);
    blind.run();
    blind.stop();
    blind.join();
    EXPECT_THAT(log.Lines(),
                ElementsAre(EndsWith("frame runs already"), EndsWith("frame has no queue to wait on")));
}

TEST_F(FrameTest, NeverBlockingFrameRunsWithoutAQueue) {
    RecordingFrame frame(none, BLOCK_NEVER, nullptr, nullptr);
    frame.run();
    EXPECT_TRUE(test::Eventually([&] { return frame.m_empty_calls > 1; }));
    frame.stop();
    frame.join();
}

TEST(FrameLibrary, TakesNothingElseOfThePlatformButTheLog) {
    EXPECT_EQ(std::system(ALONE_PROGRAM), 0);
}

}  // namespace
}  // namespace frame
