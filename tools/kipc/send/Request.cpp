#include "Request.h"

#include <algorithm>
#include <iterator>

namespace kipcsend {

namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

// How long an answer is awaited: what the service itself may take, and some seconds of what else may hold it.
constexpr milliseconds kAtOnce =
    5s;  // the command frame is held for 2 s at most, transfers to phones excepted
constexpr milliseconds kModeChange =
    30s;                              // 20 s timer of the mode change, 3 s until the phone counts as gone
constexpr milliseconds kReset = 10s;  // power off and on, and 2.4 s for each volume that is being unmounted
constexpr milliseconds kSelfTest = 10s;    // 1 s for the hub, and its commands
constexpr milliseconds kMountCheck = 10s;  // 2.4 s for each volume that is being unmounted
constexpr milliseconds kSearch = 3s;       // nobody answers when nothing is attached

constexpr Mode kModes[] = {
    {"android-auto", "request Android Auto", "result of Android Auto", kModeChange,
     "Switch an attached Android phone to Android Auto"},
    {"mirrorlink", "request MirrorLink", "result of MirrorLink", kModeChange,
     "Switch an attached phone to MirrorLink"},
    {"carplay", "request CarPlay", "result of CarPlay", kAtOnce,
     "Begin CarPlay with an iPhone that supports it"},
    {"carlife-android", "request CarLife on Android", "result of CarLife on Android", kModeChange,
     "Switch an attached Android phone to CarLife"},
    {"carlife-iphone", "request CarLife on iPhone", "result of CarLife on iPhone", kAtOnce,
     "Begin CarLife with an attached iPhone"},
    {"reset", "request reset", "result of reset", kReset,
     "End the mode that runs (ids of the phone as it is now: an accessory's own)"},
};

constexpr unsigned kSearchedPorts = 2;

Answer AnswerOf(std::string_view record, std::vector<FieldValue> known_by, std::optional<FieldValue> success,
                milliseconds timeout) {
    Answer answer;
    answer.kind = ANSWER_COMES;
    answer.record = record;
    answer.known_by = std::move(known_by);
    answer.success = std::move(success);
    answer.timeout = timeout;
    return answer;
}

bool HasValue(const records::Record& record, records::Bytes bytes, const FieldValue& wanted) {
    const records::Field* field = records::FindField(record, wanted.first);
    if (!field) return false;
    if (field->kind == records::KIND_TEXT) return records::Text(*field, bytes) == wanted.second;
    return records::Say(*field, bytes) == wanted.second;
}

Request FourValues(std::string_view about, const std::vector<std::string>& values) {
    std::vector<FieldValue> fields = {{"about", std::string(about)}};
    for (std::size_t i = 0; i < values.size(); ++i)
        fields.emplace_back("value" + std::to_string(i + 1), values[i]);
    return {"power", BuildRecord("power", fields), {}};
}

}  // namespace

bool IsAnswer(const Answer& answer, const records::Record* record, records::Bytes bytes) {
    if (answer.kind == ANSWER_UNKNOWN) return true;
    if (answer.kind == ANSWER_NONE || !record || record->name != answer.record) return false;
    return std::ranges::all_of(answer.known_by,
                               [&](const FieldValue& wanted) { return HasValue(*record, bytes, wanted); });
}

bool IsSuccess(const Answer& answer, const records::Record& record, records::Bytes bytes) {
    return !answer.success || HasValue(record, bytes, *answer.success);
}

std::vector<unsigned char> BuildRecord(std::string_view name, const std::vector<FieldValue>& values) {
    const records::Record* record = records::Find(name);
    if (!record) throw BadValue("there is no record " + std::string(name));
    std::vector<unsigned char> bytes = records::Blank(*record);
    for (const auto& [field_name, value] : values) {
        const records::Field* field = records::FindField(*record, field_name);
        if (!field) throw BadValue(std::string(name) + " has no field " + field_name);
        if (!records::Set(*field, value, bytes))
            throw BadValue(field_name + " cannot be '" + value + "' (" + std::to_string(field->width) +
                           (field->width == 1 ? " byte)" : " bytes)"));
    }
    return bytes;
}

std::span<const Mode> Modes() {
    return kModes;
}

Request AskForMode(const Mode& mode, const Phone& phone) {
    std::vector<FieldValue> fields = {{"id", std::string(mode.request)}};
    const FieldValue given[] = {{"port", phone.port},     {"vid", phone.vid},         {"pid", phone.pid},
                                {"serial", phone.serial}, {"devpath", phone.devpath}, {"devid", phone.devid}};
    std::ranges::copy_if(given, std::back_inserter(fields),
                         [](const FieldValue& one) { return !one.second.empty(); });
    std::vector<FieldValue> known_by = {{"id", std::string(mode.result)}};
    // The service gives it back: another request's result is not taken for this one's.
    if (!phone.devid.empty()) known_by.emplace_back("devid", phone.devid);
    return {"sdcm", BuildRecord("mode_request", fields),
            AnswerOf("mode_result", known_by, FieldValue{"result", "done"}, mode.timeout)};
}

Request SearchBySdcm() {
    Answer answer = AnswerOf("device_event", {{"id", "device attached"}}, std::nullopt, kSearch);
    answer.most = kSearchedPorts;
    return {"sdcm", BuildRecord("search", {}), answer};
}

Request SearchByMedia(const std::string& dev_type, const std::string& port) {
    Answer answer = AnswerOf("st_usb_pkt", {{"cmd", "attach"}}, std::nullopt, kSearch);
    answer.most = kSearchedPorts;
    return {"media",
            BuildRecord("media_command", {{"cmd", "search phone"}, {"dev_type", dev_type}, {"port", port}}),
            answer};
}

Request SetAdaption(const bool (&active)[kAdaptionPorts]) {
    std::vector<FieldValue> fields;
    for (unsigned i = 0; i < kAdaptionPorts; ++i)
        fields.emplace_back("port" + std::to_string(i + 1), active[i] ? "0x80" : "0");
    return {"diag", BuildRecord("diag_adaption", fields), {}};
}

Request SetCoding(unsigned coding) {
    return {"diag", BuildRecord("diag_coding", {{"coding", std::to_string(coding << 6)}}), {}};
}

Request RunSelfTest() {
    return {"diag", BuildRecord("diag_run_test", {{"start", "3"}}),
            AnswerOf("diag_test_result", {}, FieldValue{"result", "good"}, kSelfTest)};
}

Request TellPowerStates(const std::vector<std::string>& values) {
    return FourValues("power", values);
}

Request TellTerminals(const std::vector<std::string>& values) {
    return FourValues("terminal", values);
}

Request CheckMount(unsigned port) {
    return {"test", BuildRecord("test_command", {{"extra_command", "8"}, {"port", std::to_string(port - 1)}}),
            AnswerOf("mount_check_result", {}, FieldValue{"mounted", "yes"}, kMountCheck)};
}

Request TellSettingChanged(const std::string& path) {
    std::vector<unsigned char> bytes = BuildRecord("setting_changed", {{"path", path}});
    bytes.resize(path.size() + 1);  // the store sends the text and its terminator
    return {"settings", bytes, {}};
}

Request SendRaw(const std::string& sender, std::vector<unsigned char> bytes) {
    Answer answer;
    answer.kind = ANSWER_UNKNOWN;
    answer.most = UINT32_MAX;
    return {sender, std::move(bytes), answer};
}

std::vector<unsigned char> BytesOfHex(const std::string& digits) {
    std::vector<unsigned char> bytes;
    int high = -1;
    for (const char one : digits) {
        const bool between = one == ' ' || one == ':' || one == '\n';
        if (between && high < 0) continue;
        const std::size_t digit =
            std::string_view("0123456789abcdef")
                .find(one >= 'A' && one <= 'F' ? static_cast<char>(one - 'A' + 'a') : one);
        if (digit == std::string_view::npos) throw BadValue("'" + digits + "' is not pairs of hex digits");
        if (high < 0) {
            high = static_cast<int>(digit);
        } else {
            bytes.push_back(static_cast<unsigned char>(high << 4 | static_cast<int>(digit)));
            high = -1;
        }
    }
    if (high >= 0) throw BadValue("'" + digits + "' is not pairs of hex digits");
    return bytes;
}

}  // namespace kipcsend
