// A platform that writes down what leaves the service: log lines, packets, queued records. It is linked in
// place of the real one (trace log, packets, MTP table, platform object); queues, frames and what is shown as
// status are the real ones. Any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "platform/dcm.h"

namespace test {

using Bytes = std::vector<std::uint8_t>;

// "01 60 22" or "016022" as bytes; "FF*9" stands for nine times FF.
Bytes Hex(const std::string& text);

template <typename Record>
Bytes BytesOf(const Record& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

struct LogLine {
    int level;
    std::string text;
    std::string function;  // bare name, as __func__ gives it
    std::string file;
    int line;
    int module;
    int submodule;

    // Tests compare level and text.
    friend bool operator==(const LogLine& a, const LogLine& b) {
        return a.level == b.level && a.text == b.text;
    }
    friend void PrintTo(const LogLine& line, std::ostream* out) {
        *out << line.level << " \"" << line.text << "\" (" << line.function << ")";
    }
};
inline LogLine Line(int level, std::string text) {
    return {level, std::move(text), "", "", 0, 0, 0};
}

struct Packet {
    unsigned long dest;
    Bytes bytes;
    bool operator==(const Packet&) const = default;
};

struct Queued {
    unsigned long src;
    Bytes bytes;
    bool operator==(const Queued&) const = default;
};

// Forgets what was recorded, empties the queues, restores the MTP table; a fixture calls it first.
// `threshold`: log lines below it are not written (0: all are).
void ResetPlatform(int threshold = 0);

std::vector<LogLine> Logs();           // since the reset, or the last ClearLogs
std::vector<LogLine> Logs(int level);  // of one level
void ClearLogs();
std::vector<Packet> Packets();  // since the reset, or the last ClearPackets
void ClearPackets();
std::vector<Queued> Drain(unsigned position);  // what waits in dcm::DcmInterface's queue, oldest first

// What is shown as status at this moment: the rows of a kind, in the order in which they were first shown,
// and a number.
std::vector<Bytes> ShownBytes(std::uint32_t kind);
std::uint64_t ShownNumber(const std::string& name);
template <typename Record>
std::vector<Record> Shown(std::uint32_t kind) {
    std::vector<Record> records;
    for (const Bytes& bytes : ShownBytes(kind)) {
        Record record;
        EXPECT_EQ(bytes.size(), sizeof record);
        std::memcpy(&record, bytes.data(), sizeof record);
        records.push_back(record);
    }
    return records;
}

// Devices that get_vendor_product_flag knows; none after a reset.
void KnowMtpDevice(unsigned short vid, unsigned short pid, const char* vendor, const char* product);

// Parts of the platform that can be missing until the next reset.
void LoseQueue(unsigned position);
void LoseKipc();

// "A line with this level and text was written": EXPECT_THAT(Logs(), Wrote(192, "notifier is null"));
inline auto Wrote(int level, const std::string& text) {
    return ::testing::Contains(Line(level, text));
}

}  // namespace test
