// What peers ask of the service: the bytes of each request, and which answer comes to it. Built from the
// records' description; nothing here is sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "records/Records.h"

namespace kipcsend {

// A field of a record and its value: a word of its enumeration, a number, or a text.
using FieldValue = std::pair<std::string, std::string>;

enum E_ANSWER {
    ANSWER_NONE,     // the service answers nothing to it
    ANSWER_COMES,    // a record that can be recognised
    ANSWER_UNKNOWN,  // whatever comes
};

struct Answer {
    E_ANSWER kind = ANSWER_NONE;
    std::string record;                 // its name
    std::vector<FieldValue> known_by;   // all of them; empty: the name is enough
    std::optional<FieldValue> success;  // none: that it comes is success
    unsigned most = 1;                  // after so many nothing more comes
    std::chrono::milliseconds timeout{};
};

bool IsAnswer(const Answer& answer, const records::Record* record, records::Bytes bytes);
bool IsSuccess(const Answer& answer, const records::Record& record, records::Bytes bytes);

struct Request {
    std::string sender;  // the peer
    std::vector<unsigned char> bytes;
    Answer answer;
};

// A value that its field cannot hold, or no such field; what() says it.
struct BadValue : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The record of that name with these fields, the rest as its description has it. Throws BadValue.
std::vector<unsigned char> BuildRecord(std::string_view name, const std::vector<FieldValue>& values);

// --- SDCM ---

struct Mode {
    std::string_view name;     // on the command line
    std::string_view request;  // word of the field "id"
    std::string_view result;   // the answer's
    std::chrono::milliseconds timeout;
    std::string_view about;
};
std::span<const Mode> Modes();

// Empty: not given.
struct Phone {
    std::string port;
    std::string vid;
    std::string pid;
    std::string serial;
    std::string devpath;
    std::string devid;
};
Request AskForMode(const Mode& mode, const Phone& phone);
Request SearchBySdcm();

// --- media ---

Request SearchByMedia(const std::string& dev_type, const std::string& port);

// --- diagnosis ---

inline constexpr unsigned kAdaptionPorts = 4;
Request SetAdaption(const bool (&active)[kAdaptionPorts]);
Request SetCoding(unsigned coding);  // 0 to 3
Request RunSelfTest();

// --- power management: four values each ---

Request TellPowerStates(const std::vector<std::string>& values);
Request TellTerminals(const std::vector<std::string>& values);

// --- the test interface ---

Request CheckMount(unsigned port);  // 1 or 2

// --- the settings store ---

Request TellSettingChanged(const std::string& path);

// --- anything ---

Request SendRaw(const std::string& sender, std::vector<unsigned char> bytes);
std::vector<unsigned char> BytesOfHex(
    const std::string& digits);  // spaces and colons between; throws BadValue

}  // namespace kipcsend
