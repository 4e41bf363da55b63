// What frames stand on, under a test's control: time, memory, the netlink reader, the scan, the threads.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "platform/dcm.h"
#include "platform/trace.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"

namespace test {

// Changed on the test's thread, before the frames' threads run.
struct Stage {
    std::set<std::size_t> no_memory_for;  // sizes that new(nothrow) refuses
    int netlink_failures = 0;             // InitNetlink fails so many times
    std::function<void()> during_scan;    // what happens meanwhile
    std::function<void()> at_drive;       // what DriveNetLink does
    const char* mounted_at = nullptr;     // of the volume on `mounted_port`
    unsigned mounted_port = 0;
    int failing_command = 0;  // errno with which shell commands that contain failing_text cannot be run
    std::string failing_text;
    bool threads = false;  // run() really starts the frame's thread
    std::function<void(frame::Frame*)> at_run;
};
Stage& TheStage();

// What frames did with it, in order: "usleep 10000", "sleep 1", "init netlink", "scan", "drive", "run",
// "join", and shell commands as they stand.
std::vector<std::string> Deeds();

// The queues that each frame with a list of them was told, in order; since the bench was set up.
std::vector<std::vector<frame::QueueInfo>> QueuesTold();

void ClearDeeds();

// Any of the platform's frames: two argument lists for everything.
class FrameBench : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    static std::shared_ptr<kipc::Interface>& Kipc() { return dcm::DcmInterface::m_pInstance->GetKipcSP(); }
    static frame::Message* Queue(unsigned position) {
        return dcm::DcmInterface::m_pInstance->GetMessageQueue(position);
    }
    static void ReleaseSingletons();
};

inline constexpr unsigned kUsb = dcm::DcmInterface::QUEUE_USB;
inline constexpr unsigned kSdcm = dcm::DcmInterface::QUEUE_SDCM;
inline constexpr unsigned kEvent = dcm::DcmInterface::QUEUE_EVENT;
inline constexpr unsigned kMonitor = dcm::DcmInterface::QUEUE_MONITOR;

}  // namespace test
