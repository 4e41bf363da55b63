// A record through a frame's queue, beside a plain ring of copies under a mutex.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/frame.h"

namespace {

constexpr unsigned kRecordBytes = 348;  // the usual one
constexpr int kProducers = 4;
constexpr int kBurst = 2500;  // records of each producer: all of them fit into the queue

// The least that such a queue does: one lock, one copy in, one copy out.
class PlainRing {
public:
    void push(unsigned long src, unsigned int len, const char* buf) {
        std::lock_guard lock(m_mutex);
        Slot& slot = m_slots[m_end++ % m_slots.size()];
        slot.src = src;
        slot.len = len;
        std::memcpy(slot.bytes, buf, len);
        m_filled.notify_one();
    }
    bool take(frame::Message::Record* record) {
        std::lock_guard lock(m_mutex);
        return TakeLocked(record);
    }
    bool wait_and_take(frame::Message::Record* record) {
        std::unique_lock lock(m_mutex);
        while (!TakeLocked(record))
            m_filled.wait(lock);
        return true;
    }

private:
    struct Slot {
        unsigned long src;
        unsigned int len;
        char bytes[kRecordBytes];
    };
    bool TakeLocked(frame::Message::Record* record) {
        if (m_begin == m_end) return false;
        const Slot& slot = m_slots[m_begin++ % m_slots.size()];
        std::memcpy(m_current, slot.bytes, slot.len);
        *record = {slot.src, slot.len, m_current};
        return true;
    }

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::vector<Slot> m_slots{16384};
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    alignas(8) char m_current[kRecordBytes];
};

template <typename Queue>
void PushAndTake(benchmark::State& state, Queue& queue) {
    char bytes[kRecordBytes] = {};
    frame::Message::Record record;
    for (auto _ : state) {
        queue.push(1, sizeof bytes, bytes);
        if (!queue.take(&record)) state.SkipWithError("nothing came");
        benchmark::DoNotOptimize(record.buf[0]);
    }
}

// A burst of four threads at once; the time is until the reader has all of it, by record.
template <typename Queue>
void FourProducers(benchmark::State& state, Queue& queue) {
    for (auto _ : state) {
        std::atomic<bool> go{false};
        std::vector<std::thread> producers;
        for (int i = 0; i < kProducers; ++i)
            producers.emplace_back([&] {
                const char bytes[kRecordBytes] = {};
                while (!go)
                    std::this_thread::yield();
                for (int k = 0; k < kBurst; ++k)
                    queue.push(1, sizeof bytes, bytes);
            });
        frame::Message::Record record;
        const auto begin = std::chrono::steady_clock::now();
        go = true;
        for (int taken = 0; taken < kProducers * kBurst; ++taken)
            queue.wait_and_take(&record);
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(passed.count() / (kProducers * kBurst));
        for (std::thread& producer : producers)
            producer.join();
    }
}

void PlainOne(benchmark::State& state) {
    PlainRing queue;
    PushAndTake(state, queue);
}
BENCHMARK(PlainOne)->Name("message/plain_ring/one_thread")->Repetitions(5)->ReportAggregatesOnly();

void MessageOne(benchmark::State& state) {
    frame::Message queue("bench");
    PushAndTake(state, queue);
}
BENCHMARK(MessageOne)->Name("message/queue/one_thread")->Repetitions(5)->ReportAggregatesOnly();

void PlainFour(benchmark::State& state) {
    PlainRing queue;
    FourProducers(state, queue);
}
BENCHMARK(PlainFour)
    ->Name("message/plain_ring/four_producers")
    ->UseManualTime()
    ->Iterations(10)
    ->Repetitions(9)
    ->ReportAggregatesOnly();

void MessageFour(benchmark::State& state) {
    frame::Message queue("bench");
    FourProducers(state, queue);
    state.counters["dropped"] = static_cast<double>(queue.dropped());
}
BENCHMARK(MessageFour)
    ->Name("message/queue/four_producers")
    ->UseManualTime()
    ->Iterations(10)
    ->Repetitions(9)
    ->ReportAggregatesOnly();

}  // namespace
