#include "FrameBench.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <new>

#include "access/UDevAccessor.h"
#include "event/UDev.h"
#include "event/UNetLink.h"
#include "node/UListNode.h"
#include "port/UListPortState.h"

namespace test {
namespace {

std::mutex deeds_mutex;
std::vector<std::string> deeds;
std::vector<std::vector<frame::QueueInfo>> queues_told;  // the test's thread

void Did(std::string deed) {
    std::lock_guard lock(deeds_mutex);
    deeds.push_back(std::move(deed));
}

}  // namespace

Stage& TheStage() {
    static Stage stage;
    return stage;
}

std::vector<std::string> Deeds() {
    std::lock_guard lock(deeds_mutex);
    return deeds;
}

void ClearDeeds() {
    std::lock_guard lock(deeds_mutex);
    deeds.clear();
}

std::vector<std::vector<frame::QueueInfo>> QueuesTold() {
    return queues_told;
}

void FrameBench::ReleaseSingletons() {
    dcm::usb::UListPortState::Release();
    dcm::usb::UListNode::Release();
    dcm::usb::UDevAccessor::Release();
}

void FrameBench::SetUp() {
    TheStage() = Stage();
    ReleaseSingletons();
    ResetPlatform();
    ResetStore();
    ClearLogs();
    ClearDeeds();
    queues_told.clear();
}

void FrameBench::TearDown() {
    TheStage() = Stage();
    ReleaseSingletons();
    ResetStore();
}

}  // namespace test

using test::Did;
using test::TheStage;

extern "C" {

void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return TheStage().no_memory_for.contains(size) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

int __wrap_usleep(useconds_t time) {
    Did("usleep " + std::to_string(time));
    sched_yield();
    return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
    Did("sleep " + std::to_string(seconds));
    return 0;
}

// USpawn::RunCmd(const char*): nothing is run.
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    Did(command);
    const test::Stage& stage = TheStage();
    if (!stage.failing_command || std::string(command).find(stage.failing_text) == std::string::npos)
        return 0;
    errno = stage.failing_command;
    return -1;
}

int __wrap__ZN3dcm3usb8UNetLink11InitNetlinkEv(dcm::usb::UNetLink*) {
    Did("init netlink");
    return TheStage().netlink_failures-- > 0 ? -1 : 0;
}

void __wrap__ZN3dcm3usb8UNetLink12DriveNetLinkEv(dcm::usb::UNetLink*) {
    Did("drive");
    if (TheStage().at_drive) TheStage().at_drive();
    sched_yield();
}

void __wrap__ZN3dcm3usb4UDev11ScanDevicesEv(dcm::usb::UDev*) {
    Did("scan");
    if (TheStage().during_scan) TheStage().during_scan();
}

dcm::usb::UNode* __wrap__ZN3dcm3usb9UListNode24FindTestMountedBlockNodeEhPcm(dcm::usb::UListNode*,
                                                                             std::uint8_t port, char* path,
                                                                             std::size_t size) {
    static char node;  // its address is all that a finder's caller may use
    if (!TheStage().mounted_at || port != TheStage().mounted_port) {
        path[0] = '\0';
        return nullptr;
    }
    std::snprintf(path, size, "%s", TheStage().mounted_at);
    return reinterpret_cast<dcm::usb::UNode*>(&node);
}

// The constructor with a list of queues.
void __real__ZN5frame5FrameC2ERSt10shared_ptrIN4kipc9InterfaceEERKNS_5BLOCKEPNS_7MessageERKSt6vectorINS_9QueueInfoESaISC_EEPNS_10ProcessMgrE(
    frame::Frame* frame, std::shared_ptr<kipc::Interface>& interface, const frame::BLOCK& block,
    frame::Message* message, const std::vector<frame::QueueInfo>& queues, frame::ProcessMgr* manager);
void __wrap__ZN5frame5FrameC2ERSt10shared_ptrIN4kipc9InterfaceEERKNS_5BLOCKEPNS_7MessageERKSt6vectorINS_9QueueInfoESaISC_EEPNS_10ProcessMgrE(
    frame::Frame* frame, std::shared_ptr<kipc::Interface>& interface, const frame::BLOCK& block,
    frame::Message* message, const std::vector<frame::QueueInfo>& queues, frame::ProcessMgr* manager) {
    test::queues_told.push_back(queues);
    __real__ZN5frame5FrameC2ERSt10shared_ptrIN4kipc9InterfaceEERKNS_5BLOCKEPNS_7MessageERKSt6vectorINS_9QueueInfoESaISC_EEPNS_10ProcessMgrE(
        frame, interface, block, message, queues, manager);
}

void __real__ZN5frame5Frame3runEv(frame::Frame* frame);
void __wrap__ZN5frame5Frame3runEv(frame::Frame* frame) {
    Did("run");
    if (TheStage().at_run) TheStage().at_run(frame);
    if (TheStage().threads) __real__ZN5frame5Frame3runEv(frame);
}

void __real__ZN5frame5Frame4joinEv(frame::Frame* frame);
void __wrap__ZN5frame5Frame4joinEv(frame::Frame* frame) {
    Did("join");
    if (TheStage().threads) __real__ZN5frame5Frame4joinEv(frame);
}
}
