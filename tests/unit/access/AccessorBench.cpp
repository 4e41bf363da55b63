#include "unit/access/AccessorBench.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>

#include "board/UPort.h"
#include "support/FailingMutex.h"

namespace test {
namespace {

constexpr int kNoCommand = -2;

struct Outside {
    std::mutex mutex;
    std::vector<std::string> deeds;
    int failing_command = kNoCommand;
    int error = 0;
};

Outside outside;
std::atomic<int> locks{0};
std::atomic<int> locked{0};

bool IsAccessors(const pthread_mutex_t* mutex) {
    const auto* accessor = reinterpret_cast<const char*>(dcm::usb::UDevAccessor::m_pInstance);
    const auto* place = reinterpret_cast<const char*>(mutex);
    const std::less<const char*> before;
    return accessor && !before(place, accessor) && before(place, accessor + sizeof(dcm::usb::UDevAccessor));
}

void Did(const std::string& deed) {
    const std::lock_guard guard(outside.mutex);
    outside.deeds.push_back((locked > 0 ? "locked: " : "unlocked: ") + deed);
}

// The error of the command that runs now, or 0.
int ErrorOfCommand() {
    const std::lock_guard guard(outside.mutex);
    if (outside.failing_command == kAllCommands) return outside.error;
    if (outside.failing_command == kNoCommand) return 0;
    if (outside.failing_command-- > 0) return 0;
    outside.failing_command = kNoCommand;
    return outside.error;
}

}  // namespace

std::vector<std::string> Deeds() {
    const std::lock_guard guard(outside.mutex);
    return outside.deeds;
}

int Locks() {
    return locks;
}

bool IsLocked() {
    return locked > 0;
}

void FailCommand(int which, int error) {
    const std::lock_guard guard(outside.mutex);
    outside.failing_command = which;
    outside.error = error;
}

void AccessorBench::SetUp() {
    dcm::usb::UDevAccessor::Release();
    ResetPlatform();
    ResetUsb();
    fail_mutex_init = fail_mutex_destroy = false;
    SetHubPorts(0);
    dcm::usb::UPort::m_board_type = 1;
    FailCommand(kNoCommand, 0);
    dcm::usb::UDevAccessor::GetInstance();
    outside.deeds.clear();
    locks = locked = 0;
}

void AccessorBench::TearDown() {
    ExpectAllGivenBack();
    EXPECT_THAT(UsbMisuse(), ::testing::IsEmpty());
    fail_mutex_init = fail_mutex_destroy = false;
    dcm::usb::UDevAccessor::Release();
    ResetUsb();
    SetHubPorts(0);
    dcm::usb::UPort::m_board_type = 0;
}

void AccessorBench::SetHubPorts(std::uint8_t ports) {
    dcm::usb::UPort::m_hub_max_port = ports;
}

void AccessorBench::ExpectAllGivenBack() {
    EXPECT_FALSE(IsLocked());
    EXPECT_EQ(HeldOfUsb(), UsbHeld{});
}

}  // namespace test

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const bool accessors = test::IsAccessors(mutex);
    if (accessors) ++test::locks;
    const int result = __real_pthread_mutex_lock(mutex);
    if (accessors) ++test::locked;
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (test::IsAccessors(mutex)) --test::locked;
    return __real_pthread_mutex_unlock(mutex);
}

unsigned __wrap_sleep(unsigned seconds) {
    test::Did("sleep " + std::to_string(seconds) + " s");
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    test::Did("sleep " + std::to_string(microseconds) + " us");
    return 0;
}

// USpawn::RunCmd(const char*)
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    test::Did(command);
    const int error = test::ErrorOfCommand();
    errno = error;
    return error == 0 ? 0 : -1;
}
}
