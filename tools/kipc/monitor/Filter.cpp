#include "monitor/Filter.h"

#include <algorithm>
#include <charconv>

namespace kipcmon {
namespace {

bool Contains(const std::vector<std::string>& wanted, const std::string& name) {
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end();
}

bool HasOneOf(const std::vector<std::int64_t>& wanted, const Entry& entry, std::string_view name) {
    if (wanted.empty()) return true;
    const records::Field* field = entry.record ? records::FindField(*entry.record, name) : nullptr;
    if (!field || !records::Holds(*field, entry.datagram.record)) return false;
    const std::int64_t number = records::Number(*field, entry.datagram.record);
    return std::find(wanted.begin(), wanted.end(), number) != wanted.end();
}

bool IsLowerHexDigit(char one) {
    return (one >= '0' && one <= '9') || (one >= 'a' && one <= 'f');
}

std::optional<std::int64_t> NumberOf(std::string_view text) {
    const bool hex = text.starts_with("0x");
    if (hex) text.remove_prefix(2);
    const char* end = text.data() + text.size();
    std::uint32_t number = 0;
    const auto [stopped, error] = std::from_chars(text.data(), end, number, hex ? 16 : 10);
    if (error != std::errc() || stopped != end) return std::nullopt;
    return number;
}

}  // namespace

bool Filter::Passes(const Entry& entry) const {
    return Contains(senders, entry.datagram.sender) && Contains(receivers, entry.datagram.receiver) &&
           HasOneOf(ids, entry, "id") && HasOneOf(ports, entry, "port");
}

bool IsProcess(const std::string& name) {
    if (name == "usb" || name == "monitor") return true;
    for (const records::Process& process : records::Processes())
        if (process.name == name) return true;
    return name.size() == 16 && std::all_of(name.begin(), name.end(), IsLowerHexDigit);
}

std::vector<std::int64_t> IdsOf(const std::string& text) {
    if (const std::optional<std::int64_t> number = NumberOf(text)) return {*number};
    std::vector<std::int64_t> ids;
    for (const records::Record& record : records::All()) {
        const records::Field* field = records::FindField(record, "id");
        if (!field) continue;
        for (const records::Word& word : field->words)
            if (word.word == text && std::find(ids.begin(), ids.end(), word.number) == ids.end())
                ids.push_back(word.number);
    }
    return ids;
}

std::optional<std::int64_t> PortOf(const std::string& text) {
    return NumberOf(text);
}

}  // namespace kipcmon
