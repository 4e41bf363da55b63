#include "PortBench.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "access/UDevAccessor.h"
#include "port/UListPortState.h"
#include "record/SdcmRecord.h"
#include "setting/USetting.h"

namespace test {
namespace {

struct Deed {
    std::size_t lines_before;  // log lines that were there when it was done
    std::string text;
};
std::vector<Deed> deeds;

void Did(std::string text) {
    deeds.push_back({Logs().size(), std::move(text)});
}

int Result(const char* operation) {
    const auto found = TheStage().results.find(operation);
    if (found == TheStage().results.end() || found->second.empty()) return 0;
    std::vector<int>& results = found->second;
    const int result = results.front();
    if (results.size() > 1) results.erase(results.begin());
    return result;
}

int OnPhone(const char* operation, unsigned vid, unsigned pid, unsigned port) {
    Did(Format("%s %04x:%04x port %u", operation, vid, pid, port));
    return Result(operation);
}

int OnPort(const char* operation, unsigned port, const std::string& rest = "") {
    Did(Format("%s port %u%s", operation, port, rest.c_str()));
    return Result(operation);
}

// The record, and in `wrong` what its text does not show: other bytes than fields, or another size.
template <typename Record>
Record Read(const Bytes& bytes, std::string& wrong) {
    Record record{};
    if (bytes.size() != sizeof record) wrong += Format(" (%zu bytes)", bytes.size());
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

template <std::size_t size>
void ExpectZero(const std::uint8_t (&padding)[size], std::string& wrong) {
    if (std::any_of(padding, padding + size, [](std::uint8_t byte) { return byte != 0; }))
        wrong += " (padding)";
}

template <std::size_t size>
std::string Text(const char (&field)[size], std::string& wrong) {
    const std::size_t length = strnlen(field, size);
    if (length == size) wrong += " (unterminated)";
    if (std::any_of(field + length, field + size, [](char byte) { return byte != 0; }))
        wrong += " (behind text)";
    return std::string(field, length);
}

template <typename Record>
void ExpectHead(const Record& record, std::string& wrong) {
    if (record.sender != dcm::usb::SENDER_COMMAND) wrong += Format(" (sender %d)", record.sender);
    ExpectZero(record.unused, wrong);
}

template <typename Record>
std::string Texts(const Record& record, std::string& wrong) {
    return Text(record.serial, wrong) + " " + Text(record.product, wrong) + " " +
           Text(record.manufacturer, wrong) + " " + Text(record.devpath, wrong);
}

std::string DeviceEvent(const Bytes& bytes) {
    std::string wrong;
    const auto record = Read<dcm::usb::DeviceEventRecord>(bytes, wrong);
    ExpectHead(record, wrong);
    ExpectZero(record.unused2, wrong);
    return Format("%u port %u type %u %04x:%04x class %x speed %u capa %u,%u,%u,%u ", record.id, record.port,
                  record.dev_type, record.vid, record.pid, record.usb_class, record.speed, record.aa_capa,
                  record.ml_capa, record.cp_capa, record.cl_capa) +
           Texts(record, wrong) + wrong;
}

std::string ModeResult(const Bytes& bytes) {
    std::string wrong;
    const auto record = Read<dcm::usb::UMsgChMode>(bytes, wrong);
    ExpectHead(record, wrong);
    if (record.unused2 != 0) wrong += " (padding)";
    ExpectZero(record.unused3, wrong);
    return Format("%u result %u port %u %04x:%04x ", record.id, record.result, record.port, record.vid,
                  record.pid) +
           Text(record.serial, wrong) + " " + Text(record.devpath, wrong) + " " + Text(record.devid, wrong) +
           wrong;
}

std::string ShortItem(const Bytes& bytes) {
    std::string wrong;
    const auto record = Read<dcm::usb::UMsgHeader>(bytes, wrong);
    ExpectHead(record, wrong);
    if (record.argument != 0) wrong += " (argument)";
    ExpectZero(record.unused2, wrong);
    return Format("%u port %u", record.id, record.port) + wrong;
}

std::string NodeItem(const Bytes& bytes) {
    std::string wrong;
    const auto record = Read<dcm::usb::UMsgNode>(bytes, wrong);
    ExpectHead(record, wrong);
    ExpectZero(record.unused2, wrong);
    ExpectZero(record.unused3, wrong);
    return Format("%u port %u type %u %04x:%04x class %x speed %u ", record.id, record.port, record.dev_type,
                  record.vid, record.pid, record.usb_class, record.speed) +
           Texts(record, wrong) + wrong;
}

std::string MediaPacket(const Packet& packet) {
    std::string wrong;
    const auto record = Read<dcm::usb::st_usb_pkt>(packet.bytes, wrong);
    if (packet.dest != dcm::usb::kDestUsbSet) wrong += Format(" (to %lx)", packet.dest);
    if (record.kind != dcm::usb::kMediaPacketKind) wrong += Format(" (kind %u)", record.kind);
    ExpectZero(record.unused, wrong);
    return Format("cmd %u.%u port %u type %u %04x:%04x support %u,%u,%u class %x speed %u ", record.cmd,
                  record.sub_cmd, record.port, record.dev_type, record.vid, record.pid, record.support[0],
                  record.support[1], record.support[2], record.usb_class, record.speed) +
           Texts(record, wrong) + wrong;
}

std::string From(const Queued& queued, const std::string& text) {
    return queued.src == dcm::usb::kSourceUsb ? text : text + Format(" (from %lu)", queued.src);
}

// All messages have the id at the same place.
std::uint32_t Id(const Bytes& bytes) {
    std::uint32_t id;
    std::memcpy(&id, bytes.data() + offsetof(dcm::usb::UMsgHeader, id), sizeof id);
    return id;
}

void ReleaseSingletons() {
    dcm::usb::UListPortState::Release();
    dcm::usb::UListNode::Release();
    dcm::usb::UDevAccessor::Release();
}

}  // namespace

PortStage& TheStage() {
    static PortStage stage;
    return stage;
}

std::vector<std::string> Deeds() {
    std::vector<std::string> texts;
    for (const Deed& deed : deeds)
        texts.push_back(deed.text);
    return texts;
}

std::vector<std::string> Story(int least_level) {
    std::vector<std::string> story;
    const std::vector<LogLine> lines = Logs();
    auto deed = deeds.begin();
    for (std::size_t at = 0; at <= lines.size(); ++at) {
        for (; deed != deeds.end() && deed->lines_before == at; ++deed)
            story.push_back(deed->text);
        if (at < lines.size() && lines[at].level >= least_level)
            story.push_back(Format("%d %s", lines[at].level, lines[at].text.c_str()));
    }
    return story;
}

void ForgetStory() {
    deeds.clear();
    ClearLogs();
}

dcm::usb::UMsgNode NodeMessage(dcm::E_MSGID id, const Phone& phone, unsigned char port) {
    dcm::usb::UMsgNode message{};
    message.sender = dcm::usb::SENDER_EVENT;
    message.id = id;
    message.port = port;
    message.dev_type = phone.type;
    message.vid = phone.vid;
    message.pid = phone.pid;
    message.usb_class = phone.usb_class;
    message.speed = phone.speed;
    dcm::usb::CopyText(message.serial, phone.serial.c_str());
    dcm::usb::CopyText(message.product, phone.product.c_str());
    dcm::usb::CopyText(message.manufacturer, phone.manufacturer.c_str());
    dcm::usb::CopyText(message.devpath, phone.devpath.c_str());
    return message;
}

dcm::usb::UMsgChMode ModeRequest(dcm::E_MSGID id, const Phone& phone, unsigned char port,
                                 const std::string& devid) {
    dcm::usb::UMsgChMode message{};
    message.id = id;
    message.port = port;
    message.vid = phone.vid;
    message.pid = phone.pid;
    dcm::usb::CopyText(message.serial, phone.serial.c_str());
    dcm::usb::CopyText(message.devpath, phone.devpath.c_str());
    dcm::usb::CopyText(message.devid, devid.c_str());
    return message;
}

dcm::usb::UMsgHeader ShortMessage(dcm::E_MSGID id, unsigned char port, std::uint8_t argument) {
    dcm::usb::UMsgHeader message{};
    message.sender = dcm::usb::SENDER_ITEM;
    message.id = id;
    message.port = port;
    message.argument = argument;
    return message;
}

std::vector<std::string> DrainSdcm() {
    std::vector<std::string> texts;
    for (const Queued& queued : Drain(dcm::DcmInterface::QUEUE_SDCM)) {
        const bool is_event = Id(queued.bytes) <= dcm::MSGID_DEVICE_DETACHED;
        texts.push_back(From(queued, is_event ? DeviceEvent(queued.bytes) : ModeResult(queued.bytes)));
    }
    return texts;
}

std::vector<std::string> DrainMonitor() {
    std::vector<std::string> texts;
    for (const Queued& queued : Drain(dcm::DcmInterface::QUEUE_MONITOR)) {
        const std::uint32_t id = Id(queued.bytes);
        const bool has_node = id == dcm::MSGID_CUTTING_ADD || id == dcm::MSGID_CUTTING_DEL;
        texts.push_back(From(queued, has_node ? NodeItem(queued.bytes) : ShortItem(queued.bytes)));
    }
    return texts;
}

std::vector<std::string> TakeMedia() {
    std::vector<std::string> texts;
    for (const Packet& packet : Packets())
        texts.push_back(MediaPacket(packet));
    ClearPackets();
    return texts;
}

void PortBench::SetUp() {
    TheStage() = PortStage();
    ReleaseSingletons();
    ResetPlatform();
    ResetStore();
    dcm::usb::USetting::GetInstance()->SetUsbCoding(dcm::usb::USB_CODING_3);
    for (unsigned char port = 0; port < dcm::usb::kAdaptionPorts; ++port)
        dcm::usb::USetting::GetInstance()->SetUsbAdaption(port, dcm::usb::USB_ADAPTION_ACTIVE);
    m_notifier.emplace();
    Renew();
}

void PortBench::TearDown() {
    m_state.reset();
    TheStage() = PortStage();
    ReleaseSingletons();
    m_notifier.reset();
    ResetStore();
    ForgetStory();
}

dcm::usb::UPortState& PortBench::Renew(unsigned char port) {
    m_state.reset();
    m_state.emplace(port, &*m_notifier);
    Forget();
    return *m_state;
}

void PortBench::PutNode(const Phone& phone, unsigned char port) {
    TheStage().nodes[{port % 10u, phone.type}] = {port, phone.vid, phone.pid};
}

void PortBench::Forget() {
    Drain(dcm::DcmInterface::QUEUE_SDCM);
    Drain(dcm::DcmInterface::QUEUE_MONITOR);
    ClearPackets();
    ForgetStory();
}

}  // namespace test

using test::Did;
using test::OnPhone;
using test::OnPort;
using test::TheStage;

extern "C" {

unsigned __wrap_sleep(unsigned seconds) {
    Did(test::Format("sleep %u", seconds));
    return 0;
}

void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return TheStage().no_memory_for.contains(size) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

// Of UDevAccessor. Pointers to member functions are even, as the compiler aligns these: an odd one would be
// taken for the number of a virtual function.
#define EVEN [[gnu::aligned(2)]]
#define ON_PHONE(mangled, operation)                                                                     \
    EVEN int __wrap__ZN3dcm3usb12UDevAccessor##mangled##Etth(dcm::usb::UDevAccessor*, std::uint16_t vid, \
                                                             std::uint16_t pid, std::uint8_t port) {     \
        return OnPhone(operation, vid, pid, port);                                                       \
    }
ON_PHONE(9StartAOAP, "StartAOAP")
ON_PHONE(16StartCarLifeAOAP, "StartCarLifeAOAP")
ON_PHONE(19DiscernAACapability, "DiscernAACapability")
ON_PHONE(19DiscernCPCapability, "DiscernCPCapability")
ON_PHONE(19DiscernMLCapability, "DiscernMLCapability")
ON_PHONE(15StartMirrorLink, "StartMirrorLink")
ON_PHONE(16StartCPPortReset, "StartCPPortReset")
ON_PHONE(16StartCLPortReset, "StartCLPortReset")
ON_PHONE(16StartAAPortReset, "StartAAPortReset")

#define ON_PORT(mangled, operation)                                                                      \
    EVEN int __wrap__ZN3dcm3usb12UDevAccessor##mangled##Eh(dcm::usb::UDevAccessor*, std::uint8_t port) { \
        return OnPort(operation, port);                                                                  \
    }
ON_PORT(16StartMLPortReset, "StartMLPortReset")
ON_PORT(14StartRemoveUsb, "StartRemoveUsb")
ON_PORT(17DiscernPortStatus, "DiscernPortStatus")

EVEN int __wrap__ZN3dcm3usb12UDevAccessor15StartEyePatternEhb(dcm::usb::UDevAccessor*, std::uint8_t port,
                                                              bool on) {
    return OnPort("StartEyePattern", port, on ? " on" : " off");
}

EVEN int __wrap__ZN3dcm3usb12UDevAccessor12StartHubModeEhNS0_16E_KA_HUB_CONTROLE(dcm::usb::UDevAccessor*,
                                                                                 std::uint8_t port,
                                                                                 dcm::usb::E_HUB_MODE mode) {
    return OnPort("StartHubMode", port, test::Format(" mode %d", mode));
}

// Of UListNode.
bool __wrap__ZN3dcm3usb9UListNode11FindUsbNodeEhNS0_10E_DEV_TYPEERNS0_12FoundUsbNodeE(
    dcm::usb::UListNode*, std::uint8_t port, dcm::usb::E_DEV_TYPE type, dcm::usb::FoundUsbNode& found) {
    Did(test::Format("FindUsbNode port %u type %u", port, type));
    const auto node = TheStage().nodes.find({port % 10u, type});
    if (node == TheStage().nodes.end()) return false;
    found = node->second;
    return true;
}

dcm::usb::UNode* __wrap__ZN3dcm3usb9UListNode11FindNetNodeEh(dcm::usb::UListNode*, std::uint8_t port) {
    static char node;  // its address is all that a finder's caller may use
    Did(test::Format("FindNetNode port %u", port));
    return TheStage().net_nodes.contains(port) ? reinterpret_cast<dcm::usb::UNode*>(&node) : nullptr;
}
}
