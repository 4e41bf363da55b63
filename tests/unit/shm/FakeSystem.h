// The operating system as the store sees it, moved aside: segments and semaphores get a prefix of this
// process,
// "/data" is a folder of the test's, "/dev/css" is a driver that writes down its requests, and calls fail
// when the test says so. Everything else is real.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace test {

using Bytes = std::vector<std::uint8_t>;

// One request that reached the driver.
struct CssCall {
    unsigned long command;
    Bytes request;  // 40 bytes, the buffer's address cleared
    Bytes buffer;
};

struct OpenCall {
    std::string path;  // as the store named it
    int flags;
    mode_t mode;
};

struct System {
    // A call that fails: by name ("shm_open") or with what it is for ("shm_open NotifyTable").
    struct Failure {
        std::string call;
        int error;
        int times = 1000;
    };
    std::vector<Failure> failures;
    bool no_driver = false;             // "/dev/css" is missing
    bool time_is_past = false;          // the clock runs 15 s behind: a wait that waits ends at once
    std::size_t most_per_write = 0;     // bytes that one write takes; 0: all
    std::function<void()> on_shm_open;  // called by each, before it
    std::function<void(const char* name)> on_wait;  // called by each sem_timedwait, before it

    std::vector<OpenCall> opens;       // files, segments, and the driver
    std::vector<std::string> folders;  // mkdir
    std::vector<timespec> deadlines;
    std::vector<CssCall> css;
    int inherited = 0;  // descriptors, of those mapped, that a child would have
    int mapped = 0;     // mappings that were not given back
};

System& TheSystem();

// What is at a segment's place, as seen by everybody; none when it is missing.
std::optional<Bytes> SegmentBytes(const std::string& name);
void PutSegment(const std::string& name, const Bytes& bytes);
mode_t ModeOf(const std::string& path);
std::string SegmentPath(const std::string& name);         // in /dev/shm
std::string SemaphorePath(const std::string& name);       // in /dev/shm
std::string DataPath(const std::string& path);            // "/data/..." where it really is
std::optional<Bytes> FileBytes(const std::string& path);  // "/data/..."
void PutFile(const std::string& path, const Bytes& bytes);

// The record's semaphore as another process has it; closed at the end of the test.
sem_t* SemaphoreOfAnother(const std::string& name);

int OpenDescriptors();

// Empty /dev/shm and /data, a driver, and nothing that fails. At its end nothing is left of the test, and it
// fails when the store kept a descriptor or a mapping.
class SystemTest : public ::testing::Test {
protected:
    SystemTest();
    ~SystemTest() override;

    // What the store wrote to standard error since the last call.
    std::string Complaints();

private:
    int m_descriptors;
};

}  // namespace test
