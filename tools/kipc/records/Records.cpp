#include "records/Records.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace records {

namespace {

#include "Table.inc"

constexpr std::size_t kShownOfUnknown = 48;  // bytes of a record that no description fits

// What there is of the field in the bytes.
Bytes Piece(const Field& field, Bytes bytes) {
    if (bytes.size() <= field.at) return {};
    return bytes.subspan(field.at, std::min(field.width, bytes.size() - field.at));
}

bool IsNumber(const Field& field) {
    return field.kind != KIND_TEXT && field.kind != KIND_BYTES;
}

bool HoldsAlways(const Field& field, Bytes bytes) {
    return std::ranges::equal(Piece(field, bytes), field.always, [](unsigned char found, char is) {
        return found == static_cast<unsigned char>(is);
    });
}

bool Fits(const Record& record, Bytes bytes) {
    if (bytes.size() < record.minimum) return false;
    if (bytes.size() > record.minimum && !record.longer) return false;
    return std::ranges::all_of(
        record.fields, [&](const Field& field) { return field.always.empty() || HoldsAlways(field, bytes); });
}

bool IsZero(unsigned char byte) {
    return byte == 0;
}

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// Bytes of the UTF-8 character that `bytes` begin with, 0 when they begin with none.
std::size_t CharacterBytes(Bytes bytes) {
    const unsigned char first = bytes[0];
    if (first < 0x80) return 1;
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (length == 0 || length > bytes.size()) return 0;
    if (!std::ranges::all_of(bytes.subspan(1, length - 1), IsContinuation)) return 0;
    const unsigned char second = bytes[1];
    if (first == 0xE0 && second < 0xA0) return 0;   // could be shorter
    if (first == 0xED && second >= 0xA0) return 0;  // half of a UTF-16 pair
    if (first == 0xF0 && second < 0x90) return 0;   // could be shorter
    if (first == 0xF4 && second >= 0x90) return 0;  // behind the last character
    return length;
}

// A control character: C0, delete, or C1 (0xC2 0x80 to 0xC2 0x9F).
bool IsControl(Bytes character) {
    if (character.size() == 1) return character[0] < 0x20 || character[0] == 0x7F;
    return character.size() == 2 && character[0] == 0xC2 && character[1] < 0xA0;
}

std::string Hex(std::uint64_t number, std::size_t digits) {
    std::string text(digits, '0');
    for (std::size_t i = digits; i > 0; --i, number >>= 4)
        text[i - 1] = "0123456789abcdef"[number & 0xF];
    return text;
}

std::string HexOf(Bytes bytes, std::string_view between = "") {
    std::string text;
    for (const unsigned char byte : bytes) {
        if (!text.empty()) text += between;
        text += Hex(byte, 2);
    }
    return text;
}

std::string Quoted(Bytes text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        const std::size_t length = CharacterBytes(text);
        const Bytes character = text.first(length == 0 ? 1 : length);
        if (length == 0 || IsControl(character)) {
            for (const unsigned char byte : character)
                quoted += "\\x" + Hex(byte, 2);
        } else {
            if (character[0] == '"' || character[0] == '\\') quoted += '\\';
            quoted.append(character.begin(), character.end());
        }
        text = text.subspan(character.size());
    }
    return quoted + '"';
}

std::string SayNumber(const Field& field, Bytes bytes) {
    const std::string_view word = WordOf(field, bytes);
    if (!word.empty()) return std::string(word);
    const std::int64_t number = Number(field, bytes);
    if (field.hex) return "0x" + Hex(static_cast<std::uint64_t>(number), 2 * field.width);
    return std::to_string(number);
}

std::optional<std::int64_t> NumberOf(const Field& field, std::string_view value) {
    for (const Word& word : field.words) {
        if (word.word == value) return word.number;
    }
    const bool negative = value.starts_with('-');
    std::string_view digits = value.substr(negative ? 1 : 0);
    const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
    if (hex) digits.remove_prefix(2);
    std::uint64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, hex ? 16 : 10);
    if (error != std::errc() || stop != end || number > UINT32_MAX) return std::nullopt;
    return negative ? -static_cast<std::int64_t>(number) : static_cast<std::int64_t>(number);
}

bool IsInRange(const Field& field, std::int64_t number) {
    if (field.kind == KIND_I32) return number >= INT32_MIN && number <= INT32_MAX;
    return number >= 0 && number < std::int64_t{1} << (8 * field.width);
}

int Digit(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

std::optional<std::string> BytesOfHex(std::string_view digits) {
    if (digits.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = Digit(digits[i]), low = Digit(digits[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

// The field's bytes for a value, zeros behind a short one.
std::optional<std::string> Encode(const Field& field, std::string_view value) {
    std::string bytes;
    if (IsNumber(field)) {
        const auto number = NumberOf(field, value);
        if (!number || !IsInRange(field, *number)) return std::nullopt;
        for (std::size_t i = 0; i < field.width; ++i)
            bytes += static_cast<char>(*number >> (8 * i) & 0xFF);
        return bytes;
    }
    if (field.kind == KIND_TEXT) {
        if (value.size() >= field.width || value.find('\0') != value.npos) return std::nullopt;
        bytes = value;
    } else {
        auto given = BytesOfHex(value);
        if (!given || given->size() > field.width) return std::nullopt;
        bytes = std::move(*given);
    }
    bytes.resize(field.width);
    return bytes;
}

}  // namespace

std::span<const Record> All() {
    return kRecords;
}

std::span<const Process> Processes() {
    return kProcesses;
}

const Record* Find(std::string_view name) {
    const auto found = std::ranges::find(kRecords, name, &Record::name);
    return found == std::end(kRecords) ? nullptr : found;
}

const Record* Identify(std::string_view sender, std::string_view receiver, Bytes bytes) {
    const auto found = std::ranges::find_if(kRecords, [&](const Record& record) {
        return record.from == sender && std::ranges::find(record.to, receiver) != record.to.end() &&
               Fits(record, bytes);
    });
    return found == std::end(kRecords) ? nullptr : found;
}

const Field* FindField(const Record& record, std::string_view name) {
    const auto found = std::ranges::find(record.fields, name, &Field::name);
    return found == record.fields.end() ? nullptr : &*found;
}

bool Holds(const Field& field, Bytes bytes) {
    return field.kind == KIND_TEXT || Piece(field, bytes).size() == field.width;
}

std::int64_t Number(const Field& field, Bytes bytes) {
    std::uint32_t number = 0;
    const Bytes piece = Piece(field, bytes);
    for (std::size_t i = 0; i < piece.size(); ++i)
        number |= std::uint32_t{piece[i]} << (8 * i);
    return field.kind == KIND_I32 ? static_cast<std::int32_t>(number) : std::int64_t{number};
}

std::string Text(const Field& field, Bytes bytes) {
    const Bytes piece = Piece(field, bytes);
    return std::string(piece.begin(), std::ranges::find_if(piece, IsZero));
}

std::string_view WordOf(const Field& field, Bytes bytes) {
    if (field.words.empty()) return {};  // not a number perhaps
    const auto found = std::ranges::find(field.words, Number(field, bytes),
                                         [](const Word& word) { return std::int64_t{word.number}; });
    return found == field.words.end() ? std::string_view() : found->word;
}

std::string Say(const Field& field, Bytes bytes) {
    if (IsNumber(field)) return SayNumber(field, bytes);
    const Bytes piece = Piece(field, bytes);
    if (field.kind == KIND_BYTES) return HexOf(piece);
    return Quoted(piece.first(static_cast<std::size_t>(std::ranges::find_if(piece, IsZero) - piece.begin())));
}

bool SaysSomething(const Field& field) {
    return field.always.empty() && !field.unused && !field.any;
}

std::vector<std::string> Faults(const Record& record, Bytes bytes) {
    std::vector<std::string> faults;
    bool missing = false;
    for (const Field& field : record.fields) {
        const std::string name(field.name);
        const Bytes piece = Piece(field, bytes);
        if (!Holds(field, bytes)) {
            missing = true;
            continue;
        }
        if (field.kind == KIND_TEXT) {
            const auto end = std::ranges::find_if(piece, IsZero);
            if (end == piece.end()) {
                faults.push_back(name + " is not terminated");
            } else if (!std::all_of(end, piece.end(), IsZero)) {
                faults.push_back(name + " has bytes behind its end");
            }
        }
        if (field.unused && !std::ranges::all_of(piece, IsZero)) faults.push_back(name + " is not zero");
    }
    if (missing) {
        faults.push_back("ends after " + std::to_string(bytes.size()) + " of " + std::to_string(record.size) +
                         " bytes");
    }
    return faults;
}

std::vector<unsigned char> Blank(const Record& record) {
    std::vector<unsigned char> bytes(record.size);
    for (const Field& field : record.fields)
        std::ranges::copy(field.always, &bytes[field.at]);
    return bytes;
}

bool Set(const Field& field, std::string_view value, std::vector<unsigned char>& bytes) {
    const auto encoded = Encode(field, value);
    if (!encoded || bytes.size() < field.at + field.width) return false;
    std::ranges::copy(*encoded, &bytes[field.at]);
    return true;
}

std::string Describe(const Record* record, Bytes bytes) {
    if (!record) {
        return std::to_string(bytes.size()) + " bytes that no description fits: " +
               HexOf(bytes.first(std::min(bytes.size(), kShownOfUnknown)), " ");
    }
    std::string line(record->name);
    for (const Field& field : record->fields) {
        if (!SaysSomething(field) || !Holds(field, bytes)) continue;
        if (field.kind == KIND_TEXT && Text(field, bytes).empty()) continue;
        line += " " + std::string(field.name) + "=" + Say(field, bytes);
    }
    for (const std::string& fault : Faults(*record, bytes))
        line += " [" + fault + "]";
    return line;
}

}  // namespace records
