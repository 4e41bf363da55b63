#include "platform/frame.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "ByteRing.h"
#include "Log.h"
#include "Thread.h"

namespace frame {

using platform::LOG_FAILED;
using platform::LOG_REFUSED;

// What Message hides: the waiting records under one lock, and the one record that the reader has in hand.
class Message::Ring {
public:
    explicit Ring(const char* name) : m_name(name ? name : "?") {}
    ~Ring() { std::free(m_current); }

    void Push(unsigned long src, unsigned int len, const char* buf);
    bool Take(Record* record);
    bool WaitAndTake(Record* record);
    void Stop();

    const char* name() const { return m_name.c_str(); }
    std::size_t Waiting() const;
    unsigned long Dropped() const;
    std::size_t HighWater() const;

private:
    bool TakeLocked(Record* record);
    bool MakeRoom(std::size_t length);
    void CountLocked() { m_waiting.store(m_records.records(), std::memory_order_relaxed); }

    const std::string m_name;
    mutable std::mutex m_mutex;  // guards all up to m_stopped; never held while logging or in a handler
    std::condition_variable m_filled;
    platform::ByteRing m_records{kMaxBytes, std::numeric_limits<std::size_t>::max()};
    unsigned long m_dropped = 0;
    unsigned long m_dropped_in_burst = 0;
    std::size_t m_high_water = 0;
    bool m_stopped = false;
    std::atomic<std::size_t> m_waiting{0};  // records; changed under the lock, read without
    char* m_current = nullptr;              // reader's; owned; from malloc, so aligned for everything
    std::size_t m_current_bytes = 0;
};

void Message::Ring::Push(unsigned long src, unsigned int len, const char* buf) {
    unsigned long ended_burst = 0;
    bool begins_burst = false;
    std::size_t waiting = 0;
    {
        std::lock_guard lock(m_mutex);
        if (m_records.Push(src, {buf, len})) {
            m_high_water = std::max(m_high_water, m_records.bytes());
            CountLocked();
            ended_burst = m_dropped_in_burst;
            m_dropped_in_burst = 0;
            m_filled.notify_one();
        } else {
            ++m_dropped;
            begins_burst = m_dropped_in_burst++ == 0;
        }
        waiting = m_records.records();
    }
    if (begins_burst)
        PLOG(LOG_FAILED, "queue %s is full: %zu records wait, new ones are lost", m_name.c_str(), waiting);
    if (ended_burst) PLOG(LOG_FAILED, "queue %s lost %lu records", m_name.c_str(), ended_burst);
}

bool Message::Ring::Take(Record* record) {
    // A frame that never waits asks before each call of its handler, nearly always in vain.
    if (m_waiting.load(std::memory_order_relaxed) == 0) return false;
    std::lock_guard lock(m_mutex);
    return TakeLocked(record);
}

bool Message::Ring::WaitAndTake(Record* record) {
    std::unique_lock lock(m_mutex);
    while (!m_stopped) {
        if (TakeLocked(record)) return true;
        m_filled.wait(lock);
    }
    return false;
}

void Message::Ring::Stop() {
    std::lock_guard lock(m_mutex);
    m_stopped = true;
    m_filled.notify_all();
}

bool Message::Ring::TakeLocked(Record* record) {
    while (m_records.records() > 0) {
        const platform::ByteRing::Head head = m_records.Front();
        if (!MakeRoom(head.length)) {
            m_records.Pop(nullptr);
            CountLocked();
            ++m_dropped;
            ++m_dropped_in_burst;  // the next push says so
            continue;
        }
        m_records.Pop(m_current);
        CountLocked();
        std::memset(m_current + head.length, 0, kSlack);
        *record = {head.tag, head.length, m_current};
        return true;
    }
    return false;
}

bool Message::Ring::MakeRoom(std::size_t length) {
    const std::size_t needed = length + kSlack;
    if (needed <= m_current_bytes) return true;
    char* grown = static_cast<char*>(std::malloc(std::max(needed, 2 * m_current_bytes)));
    if (!grown) return false;
    std::free(m_current);
    m_current = grown;
    m_current_bytes = std::max(needed, 2 * m_current_bytes);
    return true;
}

std::size_t Message::Ring::Waiting() const {
    return m_waiting.load(std::memory_order_relaxed);
}

unsigned long Message::Ring::Dropped() const {
    std::lock_guard lock(m_mutex);
    return m_dropped;
}

std::size_t Message::Ring::HighWater() const {
    std::lock_guard lock(m_mutex);
    return m_high_water;
}

Message::Message(const char* name) : m_ring(std::make_unique<Ring>(name)) {}

Message::~Message() = default;

void Message::push(unsigned long src, unsigned int len, const char* buf) {
    if (!buf && len > 0) {
        PLOG(LOG_REFUSED, "queue %s: no bytes for a record of %u", m_ring->name(), len);
        return;
    }
    m_ring->Push(src, len, buf);
}

bool Message::take(Record* record) {
    return record && m_ring->Take(record);
}

bool Message::wait_and_take(Record* record) {
    return record && m_ring->WaitAndTake(record);
}

void Message::stop() {
    m_ring->Stop();
}

const char* Message::name() const {
    return m_ring->name();
}

std::size_t Message::waiting() const {
    return m_ring->Waiting();
}

unsigned long Message::dropped() const {
    return m_ring->Dropped();
}

std::size_t Message::high_water() const {
    return m_ring->HighWater();
}

Frame::Frame(std::shared_ptr<kipc::Interface>& interface, const BLOCK& block, Message* message,
             const std::vector<QueueInfo>& queues, ProcessMgr*)
    : m_interface(interface), m_message(message), m_block(block), m_queues(queues) {}

Frame::Frame(std::shared_ptr<kipc::Interface>& interface, const BLOCK& block, Message* message, ProcessMgr*)
    : m_interface(interface), m_message(message), m_block(block) {}

Frame::~Frame() {
    if (!m_thread.joinable()) return;
    // Too late for the derived object, which is gone already, but the thread must not outlive the base as
    // well.
    PLOG(LOG_FAILED, "a frame is destroyed while its thread runs");
    stop();
    join();
}

void Frame::run() {
    if (m_thread.joinable()) {
        PLOG(LOG_REFUSED, "frame runs already");
        return;
    }
    if (m_block == BLOCK_WAIT && !m_message) {
        PLOG(LOG_FAILED, "frame has no queue to wait on");
        return;
    }
    platform::StartThread(&m_thread, std::string("frame-") + (m_message ? m_message->name() : "?"),
                          [this] { work(); });
}

void Frame::join() {
    if (!m_thread.joinable()) return;
    if (m_thread.get_id() == std::this_thread::get_id()) {
        PLOG(LOG_FAILED, "a frame cannot wait for its own end");
        return;
    }
    m_thread.join();
}

void Frame::stop() {
    m_stopping = true;
    if (m_block == BLOCK_WAIT && m_message) m_message->stop();
}

void Frame::work() {
    alignas(8) char nothing[Message::kSlack] = {};
    Message::Record record;
    while (!m_stopping) {
        if (m_block == BLOCK_WAIT) {
            if (!m_message->wait_and_take(&record)) return;
        } else if (!m_message || !m_message->take(&record)) {
            record = {0, 0, nothing};
        }
        event_handler(record.src, record.len, record.buf);
    }
}

}  // namespace frame
