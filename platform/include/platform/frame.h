// Threads with a message queue, as the head unit's services use them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kipc {
class Interface;
}

namespace frame {

class ProcessMgr;  // the unit's process manager; this service always passes null

enum BLOCK : int {
    BLOCK_NEVER = 0,  // the handler is called again and again, with a waiting message or with a length of 0
    BLOCK_WAIT = 1    // the handler is called once per message
};

// A queue of copied records, first in, first out, each with the number of its sender.
class Message {
public:
    static constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;  // waiting records, their heads included

    // The name appears in the log when records are lost.
    explicit Message(const char* name);
    ~Message();
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Any thread, also with a lock held. Never blocks on the reader: when kMaxBytes are waiting, the newest
    // record is dropped, counted, and logged once per burst. The record is copied. A null `buf` with a length
    // is refused.
    void push(unsigned long src, unsigned int len, const char* buf);

    // One reader thread. Takes the oldest record into `record` (which is followed by at least kSlack zero
    // bytes and is 8-byte aligned) and returns true; false when nothing waits. The storage is the queue's own
    // and stays valid until the next take.
    struct Record {
        unsigned long src = 0;
        unsigned int len = 0;
        char* buf = nullptr;
    };
    static constexpr std::size_t kSlack = 512;  // zero bytes behind a record's end
    bool take(Record* record);

    // One reader thread. As `take`, but waits for a record; false when the queue was stopped.
    bool wait_and_take(Record* record);

    // Any thread. Wakes the reader for good: `wait_and_take` returns false from then on.
    void stop();

    const char* name() const;        // any thread
    std::size_t waiting() const;     // records; any thread
    unsigned long dropped() const;   // records lost since start; any thread
    std::size_t high_water() const;  // most bytes that ever waited; any thread

private:
    class Ring;
    std::unique_ptr<Ring> m_ring;
};

// Where messages under a name are delivered.
class QueueInfo {
public:
    QueueInfo(const char* name, Message* message) : m_name(name), m_message(message) {}
    const char* name() const { return m_name; }
    Message* message() const { return m_message; }

private:
    const char* m_name;
    Message* m_message;  // not owned
};

// A thread that works through a queue. Subclasses override event_handler.
class Frame {
public:
    // Keeps the interface, the queue and the list; starts nothing.
    Frame(std::shared_ptr<kipc::Interface>& interface, const BLOCK& block, Message* message,
          const std::vector<QueueInfo>& queues, ProcessMgr* manager);
    Frame(std::shared_ptr<kipc::Interface>& interface, const BLOCK& block, Message* message,
          ProcessMgr* manager);
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    // On the frame's own thread only. `buf` belongs to the platform and is valid during the call; it is
    // 8-byte aligned and followed by at least 512 zero bytes. In BLOCK_NEVER a call without a message has a
    // length of 0.
    virtual void event_handler(unsigned long src, unsigned int len, char* buf) = 0;

    // stop() and join() come first: a frame is not destroyed while its thread runs.
    virtual ~Frame();

    void run();   // starts the thread; once
    void join();  // waits for the thread to end

    // Any thread. Asks the thread to end after the handler call that it is in. The unit never does this;
    // tests do.
    void stop();

protected:
    std::shared_ptr<kipc::Interface> m_interface;
    Message* m_message;  // not owned

private:
    void work();

    BLOCK m_block;
    std::vector<QueueInfo> m_queues;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

}  // namespace frame
