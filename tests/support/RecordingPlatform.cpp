#include "support/RecordingPlatform.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "StatusBoard.h"
#include "platform/mtp.h"
#include "platform/trace.h"

int ka_log_threshold = 0;

namespace test {
namespace {

struct State {
    std::mutex mutex;
    std::vector<LogLine> logs;
    std::vector<Packet> packets;
    std::map<std::pair<unsigned short, unsigned short>, std::pair<std::string, std::string>> mtp;
    bool lost_queue[6] = {};
    bool lost_kipc = false;
};

State& Recorded() {
    static State* state = new State;  // never destroyed: a late thread may still log
    return *state;
}

}  // namespace

Bytes Hex(const std::string& text) {
    Bytes bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (std::isspace(static_cast<unsigned char>(text[at]))) {
            ++at;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
        at += 2;
        if (at < text.size() && text[at] == '*') {
            std::size_t used = 0;
            const unsigned long times = std::stoul(text.substr(at + 1), &used);
            at += 1 + used;
            bytes.insert(bytes.end(), times - 1, bytes.back());
        }
    }
    return bytes;
}

void ResetPlatform(int threshold) {
    State& state = Recorded();
    ka_log_threshold = threshold;
    {
        std::lock_guard lock(state.mutex);
        state.logs.clear();
        state.packets.clear();
        state.mtp.clear();
        for (bool& lost : state.lost_queue)
            lost = false;
        state.lost_kipc = false;
    }
    delete dcm::DcmInterface::m_pInstance;
    dcm::DcmInterface::m_pInstance = new dcm::DcmInterface;
}

std::vector<LogLine> Logs() {
    std::lock_guard lock(Recorded().mutex);
    return Recorded().logs;
}

std::vector<LogLine> Logs(int level) {
    std::vector<LogLine> lines;
    for (const LogLine& line : Logs())
        if (line.level == level) lines.push_back(line);
    return lines;
}

void ClearLogs() {
    std::lock_guard lock(Recorded().mutex);
    Recorded().logs.clear();
}

std::vector<Packet> Packets() {
    std::lock_guard lock(Recorded().mutex);
    return Recorded().packets;
}

void ClearPackets() {
    std::lock_guard lock(Recorded().mutex);
    Recorded().packets.clear();
}

std::vector<Queued> Drain(unsigned position) {
    std::vector<Queued> records;
    frame::Message* queue = dcm::DcmInterface::m_pInstance->GetMessageQueue(position);
    frame::Message::Record record;
    while (queue && queue->take(&record)) {
        const auto* begin = reinterpret_cast<const std::uint8_t*>(record.buf);
        records.push_back({record.src, Bytes(begin, begin + record.len)});
    }
    return records;
}

std::vector<Bytes> ShownBytes(std::uint32_t kind) {
    std::vector<Bytes> records;
    const status::Snapshot snapshot = status::Snapshot::Take();
    const auto* at = reinterpret_cast<const std::uint8_t*>(snapshot.data());
    const auto* const end = at + snapshot.size();
    while (at < end) {
        status::RecordHead head;
        std::memcpy(&head, at, sizeof head);
        at += sizeof head;
        if (head.kind == kind) records.emplace_back(at, at + head.length);
        at += head.length;
    }
    return records;
}

std::uint64_t ShownNumber(const std::string& name) {
    for (const auto& number : Shown<status::NumberRecord>(status::KIND_NUMBER))
        if (name == number.name) return number.value;
    ADD_FAILURE() << "no number " << name;
    return 0;
}

void KnowMtpDevice(unsigned short vid, unsigned short pid, const char* vendor, const char* product) {
    std::lock_guard lock(Recorded().mutex);
    Recorded().mtp[{vid, pid}] = {vendor, product};
}

void LoseQueue(unsigned position) {
    std::lock_guard lock(Recorded().mutex);
    Recorded().lost_queue[position] = true;
}

void LoseKipc() {
    std::lock_guard lock(Recorded().mutex);
    Recorded().lost_kipc = true;
}

}  // namespace test

using test::Recorded;

extern "C" {

void ka_log_print(const char* file, const char* function, int line, int level, int module, int submodule,
                  const char* format, ...) {
    if (level < ka_log_threshold) return;
    const int error = errno;
    char text[16384];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    {
        std::lock_guard lock(Recorded().mutex);
        Recorded().logs.push_back({level, text, function, file, line, module, submodule});
    }
    errno = error;
}

int get_vendor_product_flag(unsigned short vendor_id, unsigned short product_id, const char** vendor_name,
                            const char** product_name, unsigned int* flags) {
    std::lock_guard lock(Recorded().mutex);
    const auto found = Recorded().mtp.find({vendor_id, product_id});
    if (found == Recorded().mtp.end()) return -1;
    if (vendor_name) *vendor_name = found->second.first.c_str();
    if (product_name) *product_name = found->second.second.c_str();
    if (flags) *flags = 0;
    return 0;
}
}

namespace kipc {

class Interface::Sender {};

Interface::Interface() : m_sender(nullptr) {}
Interface::~Interface() = default;

void Interface::send_pkt(unsigned long dest, unsigned int len, char* buf) const {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(buf);
    std::lock_guard lock(Recorded().mutex);
    Recorded().packets.push_back({dest, test::Bytes(begin, begin + len)});
}

}  // namespace kipc

namespace dcm {

const char* const DcmMessage::kMsgName[] = {"none", "usb"};

DcmInterface* DcmInterface::m_pInstance = nullptr;

class DcmInterface::Receiver {};

DcmInterface::DcmInterface() : m_kipc(std::make_shared<kipc::Interface>()) {
    m_queues[QUEUE_USB] = std::make_unique<frame::Message>("usb");
    m_queues[QUEUE_SDCM] = std::make_unique<frame::Message>("sdcm");
    m_queues[QUEUE_EVENT] = std::make_unique<frame::Message>("event");
    m_queues[QUEUE_MONITOR] = std::make_unique<frame::Message>("monitor");
}

DcmInterface::~DcmInterface() = default;

std::shared_ptr<kipc::Interface>& DcmInterface::GetKipcSP() {
    std::lock_guard lock(Recorded().mutex);
    if (Recorded().lost_kipc) m_kipc.reset();
    return m_kipc;
}

frame::Message* DcmInterface::GetMessageQueue(unsigned position) const {
    std::lock_guard lock(Recorded().mutex);
    if (position >= 6 || Recorded().lost_queue[position]) return nullptr;
    return m_queues[position].get();
}

}  // namespace dcm
