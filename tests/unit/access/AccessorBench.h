// The accessor between made-up phones, a shell that only writes down its commands, and sleeps that take no
// time. All that it does is written down in one order, with the state of its lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "access/UDevAccessor.h"
#include "gtest/gtest.h"
#include "support/FakeLibusb.h"
#include "support/RecordingPlatform.h"

namespace test {

inline constexpr std::uint16_t kVid = 0x1234;
inline constexpr std::uint16_t kPid = 0xABCD;
inline constexpr std::uint8_t kPort = 2;

// Commands and sleeps: "locked: echo 1 > /sys/...", "unlocked: sleep 1 s", "unlocked: sleep 500000 us".
std::vector<std::string> Deeds();
int Locks();                             // how often the accessor took its lock, or is waiting for it
bool IsLocked();                         // its lock is held now, by whomever
void FailCommand(int which, int error);  // 0: the next one; it gives -1 and leaves `error` in errno
inline constexpr int kAllCommands = -1;  // for FailCommand

class AccessorBench : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void Renew() {  // between the rows of a table
        TearDown();
        SetUp();
    }

    static dcm::usb::UDevAccessor& Accessor() { return *dcm::usb::UDevAccessor::GetInstance(); }
    static void SetHubPorts(std::uint8_t ports);  // size of the unit's hub
    static void ExpectAllGivenBack();             // lock, contexts, handles, lists, references
};

}  // namespace test
