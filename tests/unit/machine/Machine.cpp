#include "Machine.h"

#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "access/UDevAccessor.h"
#include "board/UPort.h"
#include "frame/UEventFrame.h"
#include "frame/UFrame.h"
#include "frame/UMonitorFrame.h"
#include "node/UListNode.h"
#include "platform/dcm.h"
#include "platform/kipc.h"
#include "port/UListPortState.h"
#include "port/UPortState.h"
#include "record/MediaPacket.h"
#include "support/FakeLibusb.h"
#include "support/MemoryStore.h"

namespace test {
namespace {

constexpr int kSocket = 1000;  // what the reader takes for its netlink socket
constexpr useconds_t kMonitorPeriod = 100000;
constexpr unsigned long kServiceItself = 4096;
constexpr auto kPatience = std::chrono::seconds(20);

using dcm::DcmInterface;

// Where frames wait for the test, and the test for the frames.
struct Gate {
    std::mutex mutex;  // of what follows
    std::condition_variable test;
    std::condition_variable reader;
    std::condition_variable monitor;
    std::deque<std::string> uevents;
    bool reader_waits = false;
    bool monitor_waits = false;
    unsigned passes = 0;  // that the monitor frame may still make
    bool ends = false;

    std::atomic<unsigned long> pushed{0};   // to the command frame
    std::atomic<unsigned long> handled{0};  // by it
    std::atomic<std::int64_t> now{0};       // nanoseconds
    std::atomic<frame::Message*> usb{nullptr};
    std::atomic<frame::Message*> monitor_queue{nullptr};
};
Gate gate;

// Written by the command frame's thread while it works, and read by the test when it waits.
Said said;
World* world = nullptr;
unsigned selected_port = 0;

enum E_THREAD { THREAD_OTHER, THREAD_COMMAND, THREAD_MONITOR };
thread_local E_THREAD this_thread = THREAD_OTHER;

void Say(E_RECEIVER receiver, unsigned port, Saying saying) {
    said[{receiver, UnitPort(port)}].push_back(std::move(saying));
}

Bytes BytesAt(const char* buf, std::size_t size) {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(buf);
    return {begin, begin + size};
}

// The port that a shell command concerns.
unsigned PortOfCommand(const std::string& command) {
    const auto number = [&command](std::size_t at) {
        return static_cast<unsigned>(std::strtoul(command.c_str() + at, nullptr, 10));
    };
    if (command.ends_with("/port_sel")) return selected_port = number(std::strlen("echo "));
    if (command.ends_with("bind")) return number(std::strlen("echo 1-1."));
    if (const std::size_t path = command.find("/usb1/1-1/1-1."); path != std::string::npos)
        return number(path + std::strlen("/usb1/1-1/1-1."));
    return selected_port;
}

std::string InWords(const Transfer& transfer) {
    std::string text = std::to_string(transfer.request);
    if (transfer.request != 52) return text;
    text += "/" + std::to_string(transfer.index);
    if (transfer.index == 4) return text;  // an address of its own choice
    return text + " " + std::string(transfer.sent.begin(), transfer.sent.end() - 1);
}

test::Answer AnswerOf(const Device& device, const Transfer& transfer) {
    const std::vector<Saying>& before = said[{TO_DEVICE, UnitPort(device.port())}];
    const bool again = !before.empty() && before.back().text == InWords(transfer);
    Say(TO_DEVICE, device.port(), {InWords(transfer), {}});
    const Answers& answers = device.answers;
    switch (transfer.request) {
        case 51: {
            if (answers.protocol_bytes < 0) return {answers.protocol_bytes, {}};
            Bytes version = {static_cast<std::uint8_t>(answers.protocol),
                             static_cast<std::uint8_t>(answers.protocol >> 8)};
            version.resize(static_cast<std::size_t>(answers.protocol_bytes));
            return Reply(version);
        }
        case 52:
            if (transfer.index == answers.failing_string) return Stall();
            return Taken(transfer);
        case 53:
            return {answers.start, {}};
        case 83: {
            if (answers.cp_bytes < 0) return {answers.cp_bytes, {}};
            const unsigned value = answers.cp_capability;
            return Reply({static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)});
        }
        case 240:
            return {again ? answers.mirrorlink_again : answers.mirrorlink, {}};
    }
    return Stall();
}

class CommandFrame : public dcm::usb::UFrame {
public:
    using UFrame::UFrame;
    void event_handler(unsigned long src, unsigned int len, char* buf) override {
        this_thread = THREAD_COMMAND;
        UFrame::event_handler(src, len, buf);
        // A message is counted before it is queued, so that the last one is known for the last.
        if (gate.handled.fetch_add(1) + 1 != gate.pushed.load()) return;
        const std::lock_guard lock(gate.mutex);
        gate.test.notify_one();
    }
};

class MonitorFrame : public dcm::usb::UMonitorFrame {
public:
    using UMonitorFrame::UMonitorFrame;
    void event_handler(unsigned long src, unsigned int len, char* buf) override {
        this_thread = THREAD_MONITOR;
        UMonitorFrame::event_handler(src, len, buf);
    }
};

void WaitForUevent() {
    std::unique_lock lock(gate.mutex);
    gate.reader_waits = true;
    gate.test.notify_one();
    gate.reader.wait(lock, [] { return !gate.uevents.empty() || gate.ends; });
    gate.reader_waits = false;
}

ssize_t TakeUevent(void* buffer, std::size_t size) {
    const std::lock_guard lock(gate.mutex);
    if (gate.uevents.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const std::string event = std::move(gate.uevents.front());
    gate.uevents.pop_front();
    const std::size_t length = std::min(size, event.size());
    std::memcpy(buffer, event.data(), length);
    return static_cast<ssize_t>(length);
}

void WaitForPass() {
    std::unique_lock lock(gate.mutex);
    gate.monitor_waits = true;
    gate.test.notify_one();
    gate.monitor.wait(lock, [] { return gate.passes > 0 || gate.ends; });
    gate.monitor_waits = false;
    if (gate.passes > 0) --gate.passes;
}

}  // namespace

struct Machine::Frames {
    std::vector<frame::QueueInfo> queues{
        {DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_SDCM)->name(),
         DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_SDCM)}};
    CommandFrame command{DcmInterface::m_pInstance->GetKipcSP(),
                         DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_USB), queues};
    dcm::usb::UEventFrame event{DcmInterface::m_pInstance->GetKipcSP(),
                                DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_EVENT),
                                queues};
    MonitorFrame monitor{DcmInterface::m_pInstance->GetKipcSP(),
                         DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_MONITOR)};

    Frames() {
        command.run();
        event.run();
        monitor.run();
    }
    ~Frames() {
        monitor.stop();
        event.stop();
        {
            const std::lock_guard lock(gate.mutex);
            gate.ends = true;
            gate.reader.notify_one();
            gate.monitor.notify_one();
        }
        monitor.join();
        event.join();
        command.stop();
        command.join();
    }
};

Machine::Machine(World& unit) : m_world(unit) {
    // Records of the log would be written under one lock, which would order what is not ordered.
    ResetPlatform(255);
    ResetStore();
    SetRecord(143, Bytes(16));
    ResetUsb();
    dcm::usb::UPort::m_hub_max_port = 0;
    dcm::usb::UPort::m_board_type = 4;  // the host controller is kHost
    world = &unit;
    said.clear();
    selected_port = 0;
    {
        const std::lock_guard lock(gate.mutex);
        gate.uevents.clear();
        gate.reader_waits = gate.monitor_waits = gate.ends = false;
        gate.passes = 0;
    }
    gate.pushed = 0;
    gate.handled = 0;
    gate.usb = DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_USB);
    gate.monitor_queue = DcmInterface::m_pInstance->GetMessageQueue(DcmInterface::QUEUE_MONITOR);
    m_frames = std::make_unique<Frames>();
    if (!Settle() || !Let({unit.StartUnit(), {}})) throw std::runtime_error("the frames do not come to rest");
    Take();
}

Machine::~Machine() {
    m_frames.reset();
    gate.usb = nullptr;
    gate.monitor_queue = nullptr;
    dcm::usb::UListNode::Release();
    dcm::usb::UDevAccessor::Release();
    ResetStore();
    ResetUsb();
    dcm::usb::UPort::m_hub_max_port = 0;
    dcm::usb::UPort::m_board_type = 0;
    world = nullptr;
}

void Machine::Listen() {
    OnUsbCall([](const std::string& call) {
        // Of which device is not known here.
        if (call == "reset_device") Say(TO_DEVICE, 0, {"reset", {}});
    });
    FailUsbInit(m_world.usb_fails ? -99 : 0);
    static std::vector<int> plugged;
    for (const int phone : plugged)
        Unplug(phone);
    plugged.clear();
    for (const auto& device : m_world.devices()) {
        FakePhone phone{};
        phone.vid = static_cast<std::uint16_t>(device->vid());
        phone.pid = static_cast<std::uint16_t>(device->pid());
        phone.port = static_cast<std::uint8_t>(kPlace[device->place].libusb_port);
        phone.open_error = device->answers.opens ? 0 : -3;
        phone.reset_result = device->answers.reset;
        phone.answer = [&device = *device](const Transfer& transfer) { return AnswerOf(device, transfer); };
        plugged.push_back(Plug(std::move(phone)));
    }
}

bool Machine::Settle() {
    std::unique_lock lock(gate.mutex);
    const auto quiet = [] {
        return gate.uevents.empty() && gate.reader_waits && gate.monitor_waits && gate.passes == 0 &&
               gate.handled.load() == gate.pushed.load();
    };
    for (;;) {
        if (!gate.test.wait_for(lock, kPatience, quiet)) return false;
        const auto waiting = static_cast<unsigned>(gate.monitor_queue.load()->waiting());
        if (waiting == 0) return true;
        gate.passes = waiting;  // one message a pass
        gate.monitor.notify_one();
    }
}

bool Machine::Let(const Happening& happening, unsigned passes) {
    Listen();
    frame::Message* const inbox = gate.usb.load();
    {
        const std::lock_guard lock(gate.mutex);
        gate.uevents.insert(gate.uevents.end(), happening.uevents.begin(), happening.uevents.end());
        gate.passes += passes;
        gate.reader.notify_one();
        gate.monitor.notify_one();
    }
    for (const auto& [source, message] : happening.messages)
        inbox->push(source, static_cast<unsigned>(message.size()),
                    reinterpret_cast<const char*>(message.data()));
    return Settle();
}

bool Machine::MoveTime(std::int64_t nanoseconds) {
    gate.now += nanoseconds;
    return Let({}, 2);  // a timer sees that it is over in one pass, and fires in the next
}

Said Machine::Take() {
    for (const Queued& record : Drain(DcmInterface::QUEUE_SDCM)) {
        if (record.src != kServiceItself) throw std::runtime_error("a record to SDCM from somebody else");
        Say(TO_SDCM, record.bytes.at(8), {test::InWords(TO_SDCM, record.bytes), record.bytes});
    }
    return std::exchange(said, {});
}

std::vector<unsigned> Machine::Ports() const {
    std::vector<unsigned> ports;
    for (unsigned port = 1; port < 100; ++port)
        if (StateOf(port)) ports.push_back(port);
    return ports;
}

std::optional<unsigned> Machine::StateOf(unsigned port) const {
    const dcm::usb::UPortState* const state =
        dcm::usb::UListPortState::GetInstance()->FindPortState(static_cast<std::uint8_t>(port), false);
    if (!state) return std::nullopt;
    return state->GetState();
}

}  // namespace test

using test::gate;

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_setsockopt(int file, int level, int option, const void* value, socklen_t size);
int __real_bind(int file, const sockaddr* address, socklen_t size);
int __real_socket(int domain, int type, int protocol);
int __real_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
ssize_t __real_recv(int file, void* buffer, std::size_t size, int flags);
int __real_close(int file);

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    if (clock != CLOCK_MONOTONIC || !gate.usb.load()) return __real_clock_gettime(clock, time);
    const std::int64_t now = gate.now.load();
    time->tv_sec = static_cast<time_t>(now / 1000000000);
    time->tv_nsec = static_cast<long>(now % 1000000000);
    return 0;
}

int __wrap_usleep(useconds_t time) {
    if (test::this_thread == test::THREAD_MONITOR && time == test::kMonitorPeriod)
        test::WaitForPass();
    else
        sched_yield();
    return 0;
}

unsigned __wrap_sleep(unsigned) {
    sched_yield();
    return 0;
}

int __wrap_socket(int domain, int type, int protocol) {
    return domain == AF_NETLINK ? test::kSocket : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int file, int level, int option, const void* value, socklen_t size) {
    return file == test::kSocket ? 0 : __real_setsockopt(file, level, option, value, size);
}

int __wrap_bind(int file, const sockaddr* address, socklen_t size) {
    return file == test::kSocket ? 0 : __real_bind(file, address, size);
}

int __wrap_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    if (files != test::kSocket + 1) return __real_select(files, readable, writable, exceptional, timeout);
    test::WaitForUevent();
    return 1;
}

ssize_t __wrap_recv(int file, void* buffer, std::size_t size, int flags) {
    return file == test::kSocket ? test::TakeUevent(buffer, size) : __real_recv(file, buffer, size, flags);
}

int __wrap_close(int file) {
    return file == test::kSocket ? 0 : __real_close(file);
}

// UDev::ScanDevices(): nothing was plugged in before the start.
void __wrap__ZN3dcm3usb4UDev11ScanDevicesEv(void*) {}

// USpawn::RunCmd(const char*)
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    test::Say(test::TO_PORT_CONTROL, test::PortOfCommand(command), {command, {}});
    return test::world->RunCommand(command);
}

// frame::Message::push(unsigned long, unsigned int, const char*)
void __real__ZN5frame7Message4pushEmjPKc(frame::Message* queue, unsigned long src, unsigned int len,
                                         const char* buf);
void __wrap__ZN5frame7Message4pushEmjPKc(frame::Message* queue, unsigned long src, unsigned int len,
                                         const char* buf) {
    if (queue == gate.usb.load()) gate.pushed.fetch_add(1);
    if (queue == gate.monitor_queue.load() && test::this_thread == test::THREAD_COMMAND) {
        const test::Bytes record = test::BytesAt(buf, len);
        test::Say(test::TO_MONITOR, record.at(8), {test::InWords(test::TO_MONITOR, record), record});
    }
    __real__ZN5frame7Message4pushEmjPKc(queue, src, len, buf);
}

// kipc::Interface::send_pkt(unsigned long, unsigned int, char*) const: only what port states say, which goes
// to media; what nodes say is not theirs.
void __wrap__ZNK4kipc9Interface8send_pktEmjPc(const kipc::Interface*, unsigned long dest, unsigned int len,
                                              char* buf) {
    if (test::this_thread != test::THREAD_COMMAND) return;
    if (dest != dcm::usb::kDestUsbSet) return;
    const test::Bytes record = test::BytesAt(buf, len);
    test::Say(test::TO_MEDIA, record.at(16), {test::InWords(test::TO_MEDIA, record), record});
}
}
