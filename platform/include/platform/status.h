// What the process shows of itself to tools: copies of small records that their owners publish, and numbers.
//
// Whoever opens the SOCK_SEQPACKET socket `<root>/usb/status` gets one snapshot: datagrams of a RecordHead
// and the record's bytes, a StartRecord first, an EndRecord last; then the connection is closed. What a
// client sends is passed over. A client that does not read costs the owners nothing. Numbers are in the
// machine's byte order; a reader passes over kinds that it does not know.
//
// A platform without a status defines Row::Show and Row::Withdraw with empty bodies, and Number::Number, which
// keeps its arguments; nothing depends on what they do.
#pragma once

#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace status {

inline constexpr std::uint32_t kMagic = 0x5453534B;  // "KSST" in memory
inline constexpr std::uint16_t kVersion = 1;         // a reader refuses others
inline constexpr std::uint32_t kMaxRecordBytes = 1024;
inline constexpr std::uint32_t kMaxRows = 256;  // shown at a time

// CLOCK_MONOTONIC. Any thread.
inline std::uint64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

// The copy of one thing that its owner publishes, gone with the owner's object. The owner's thread only; the
// copy is read on another one. A row that was never shown costs nothing.
class Row {
public:
    Row() = default;
    ~Row() {
        if (m_shown) Withdraw();
    }
    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;

    // Shows the record, in place of the one before. Never fails towards the caller and never blocks on a
    // client: takes a lock for the time of a copy. Without memory, or beyond kMaxRows or kMaxRecordBytes, the
    // record is not shown, and what was shown before stays; the snapshot's end says how often that was.
    void Show(std::uint32_t kind, const void* record, std::size_t bytes);
    template <typename Record>
    void Show(std::uint32_t kind, const Record& record) {
        static_assert(__is_trivially_copyable(Record) && sizeof(Record) <= kMaxRecordBytes);
        Show(kind, &record, sizeof record);
    }

    void Withdraw();

private:
    friend class Board;
    struct Shown;
    Shown* m_shown = nullptr;  // owned; null: nothing is shown
};

// A number with a name, in every snapshot. It lives as long as the process: static objects only. Any thread
// may change it, at the cost of one relaxed operation.
class Number {
public:
    explicit Number(const char* name, std::uint64_t value = 0);  // the name is kept; at most 23 characters
    Number(const Number&) = delete;
    Number& operator=(const Number&) = delete;

    void Add() { m_value.fetch_add(1, std::memory_order_relaxed); }
    void Set(std::uint64_t value) { m_value.store(value, std::memory_order_relaxed); }

private:
    friend class Board;
    const char* const m_name;
    std::atomic<std::uint64_t> m_value;
    Number* m_next = nullptr;
};

// Kinds of records. The process's own kinds begin at KIND_OF_OWNERS.
enum E_KIND : std::uint32_t {
    KIND_START = 1,
    KIND_END = 2,
    KIND_NUMBER = 3,
    KIND_QUEUE = 4,
    KIND_RECEIVER = 5,
    KIND_OF_OWNERS = 256
};

struct [[gnu::packed]] RecordHead {
    std::uint32_t kind;
    std::uint32_t length;  // of the record behind it
    std::uint64_t row;     // the same as long as the row is shown, and never given to another; 0: no row
};
static_assert(sizeof(RecordHead) == 16);

struct [[gnu::packed]] StartRecord {
    std::uint32_t magic;       // kMagic
    std::uint16_t version;     // kVersion
    std::uint16_t head_bytes;  // of each RecordHead
    std::uint32_t process;     // its id
    std::uint32_t unused;      // zero
    std::uint64_t started_ns;  // when the platform began: CLOCK_MONOTONIC
    std::uint64_t now_ns;      // when the snapshot was taken: CLOCK_MONOTONIC
};
static_assert(sizeof(StartRecord) == 32);
static_assert(offsetof(StartRecord, started_ns) == 16);

struct [[gnu::packed]] EndRecord {
    std::uint32_t records;  // of the snapshot, without its start and its end
    std::uint32_t unused;   // zero
    std::uint64_t refused;  // how often a row could not be shown, since start
};
static_assert(sizeof(EndRecord) == 16);

struct [[gnu::packed]] NumberRecord {
    char name[24];  // terminated, as all texts
    std::uint64_t value;
};
static_assert(sizeof(NumberRecord) == 32);

// A queue of the process's frames.
struct [[gnu::packed]] QueueRecord {
    char name[24];
    std::uint64_t waiting;     // records
    std::uint64_t high_water;  // most bytes that ever waited
    std::uint64_t dropped;     // records lost since start
};
static_assert(sizeof(QueueRecord) == 48);

// Another process that records are sent to; one per receiver that was ever sent to.
struct [[gnu::packed]] ReceiverRecord {
    char name[24];
    std::uint64_t sent;     // records handed to its socket since start
    std::uint64_t dropped;  // records lost since start: nobody listened, or it did not read
    std::uint64_t waiting;  // records
};
static_assert(sizeof(ReceiverRecord) == 48);

}  // namespace status
