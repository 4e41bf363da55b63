#include "platform/status.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "StatusBoard.h"

namespace status {

struct Row::Shown {
    Shown* previous;
    Shown* next;
    RecordHead head;
    std::uint32_t capacity;
    char* bytes() { return reinterpret_cast<char*>(this + 1); }
};

// All rows and numbers. Numbers enlist before main, so everything here is there from the beginning.
class Board {
public:
    static bool Insert(Row::Shown* shown);  // false: there are enough
    static void Remove(Row::Shown* shown);
    static void Replace(Row::Shown* shown, std::uint32_t kind, const void* record, std::uint32_t length);
    static void Enlist(Number* number);
    static void Refuse();
    static std::uint64_t Refused();

    // False when the snapshot's memory does not suffice; then `needed` says for how much it would.
    static bool CopyTo(Snapshot* snapshot, std::size_t* needed);

private:
    static std::mutex s_mutex;  // guards all below; never held over a system call or another lock
    static Row::Shown* s_first;
    static Row::Shown* s_last;
    static Number* s_numbers;
    static Number* s_last_number;
    static std::size_t s_rows;
    static std::size_t s_bytes;  // of rows and numbers in a snapshot, heads included
    static std::uint64_t s_last_row;
    static std::uint64_t s_refused;
};

constinit std::mutex Board::s_mutex;
constinit Row::Shown* Board::s_first = nullptr;
constinit Row::Shown* Board::s_last = nullptr;
constinit Number* Board::s_numbers = nullptr;
constinit Number* Board::s_last_number = nullptr;
constinit std::size_t Board::s_rows = 0;
constinit std::size_t Board::s_bytes = 0;
constinit std::uint64_t Board::s_last_row = 0;
constinit std::uint64_t Board::s_refused = 0;

namespace {

const std::uint64_t g_started_ns = NowNs();

template <std::size_t size>
void CopyName(char (&field)[size], const char* name) {
    std::memset(field, 0, size);
    std::memcpy(field, name, strnlen(name, size - 1));
}

}  // namespace

// --- rows and numbers ---

bool Board::Insert(Row::Shown* shown) {
    std::lock_guard lock(s_mutex);
    if (s_rows == kMaxRows) return false;
    shown->head.row = ++s_last_row;
    shown->previous = s_last;
    shown->next = nullptr;
    (s_last ? s_last->next : s_first) = shown;
    s_last = shown;
    ++s_rows;
    s_bytes += sizeof(RecordHead) + shown->head.length;
    return true;
}

void Board::Remove(Row::Shown* shown) {
    std::lock_guard lock(s_mutex);
    (shown->previous ? shown->previous->next : s_first) = shown->next;
    (shown->next ? shown->next->previous : s_last) = shown->previous;
    --s_rows;
    s_bytes -= sizeof(RecordHead) + shown->head.length;
}

void Board::Replace(Row::Shown* shown, std::uint32_t kind, const void* record, std::uint32_t length) {
    std::lock_guard lock(s_mutex);
    s_bytes = s_bytes - shown->head.length + length;
    shown->head.kind = kind;
    shown->head.length = length;
    std::memcpy(shown->bytes(), record, length);
}

void Board::Enlist(Number* number) {
    std::lock_guard lock(s_mutex);
    (s_last_number ? s_last_number->m_next : s_numbers) = number;
    s_last_number = number;
    s_bytes += sizeof(RecordHead) + sizeof(NumberRecord);
}

void Board::Refuse() {
    std::lock_guard lock(s_mutex);
    ++s_refused;
}

std::uint64_t Board::Refused() {
    std::lock_guard lock(s_mutex);
    return s_refused;
}

void Row::Show(std::uint32_t kind, const void* record, std::size_t bytes) {
    const auto length = static_cast<std::uint32_t>(std::min<std::size_t>(bytes, kMaxRecordBytes + 1));
    if (m_shown && length <= m_shown->capacity) return Board::Replace(m_shown, kind, record, length);
    if (m_shown || length > kMaxRecordBytes) return Board::Refuse();
    auto* shown = static_cast<Shown*>(std::malloc(sizeof(Shown) + length));
    if (!shown) return Board::Refuse();
    shown->head = {kind, length, 0};
    shown->capacity = length;
    std::memcpy(shown->bytes(), record, length);
    if (Board::Insert(shown)) {
        m_shown = shown;
        return;
    }
    std::free(shown);
    Board::Refuse();
}

void Row::Withdraw() {
    if (!m_shown) return;
    Board::Remove(m_shown);
    std::free(m_shown);
    m_shown = nullptr;
}

Number::Number(const char* name, std::uint64_t value) : m_name(name), m_value(value) {
    Board::Enlist(this);
}

// --- snapshots ---

bool Board::CopyTo(Snapshot* snapshot, std::size_t* needed) {
    std::lock_guard lock(s_mutex);
    *needed = snapshot->m_size + s_bytes;
    if (snapshot->m_capacity < *needed) return false;
    for (Row::Shown* shown = s_first; shown; shown = shown->next) {
        snapshot->Append(shown->head, shown->bytes());
        ++snapshot->m_records;
    }
    for (const Number* number = s_numbers; number; number = number->m_next) {
        NumberRecord record{};
        CopyName(record.name, number->m_name);
        record.value = number->m_value.load(std::memory_order_relaxed);
        snapshot->Append(KIND_NUMBER, record);
    }
    return true;
}

Snapshot Snapshot::Take() {
    Snapshot snapshot;
    const StartRecord start{
        kMagic, kVersion, sizeof(RecordHead), static_cast<std::uint32_t>(getpid()), 0, g_started_ns, NowNs()};
    snapshot.Append({KIND_START, sizeof start, 0}, &start);
    std::size_t needed = 0;
    while (!Board::CopyTo(&snapshot, &needed))
        if (!snapshot.Reserve(needed)) break;
    return snapshot;
}

void Snapshot::End() {
    const EndRecord end{m_records, 0, Board::Refused()};
    Append({KIND_END, sizeof end, 0}, &end);
}

Snapshot::~Snapshot() {
    std::free(m_bytes);
}

Snapshot::Snapshot(Snapshot&& other) noexcept {
    *this = std::move(other);
}

Snapshot& Snapshot::operator=(Snapshot&& other) noexcept {
    std::swap(m_bytes, other.m_bytes);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_records, other.m_records);
    std::swap(m_good, other.m_good);
    return *this;
}

bool Snapshot::Reserve(std::size_t bytes) {
    if (bytes <= m_capacity) return true;
    const std::size_t capacity = std::max(bytes, 2 * m_capacity);
    auto* grown = static_cast<char*>(std::realloc(m_bytes, capacity));
    if (!grown) {
        m_good = false;
        return false;
    }
    m_bytes = grown;
    m_capacity = capacity;
    return true;
}

void Snapshot::Append(const RecordHead& head, const void* record) {
    if (!Reserve(m_size + sizeof head + head.length)) return;
    std::memcpy(m_bytes + m_size, &head, sizeof head);
    std::memcpy(m_bytes + m_size + sizeof head, record, head.length);
    m_size += sizeof head + head.length;
}

}  // namespace status
