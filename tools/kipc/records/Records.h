// What the bytes of every record mean: the description (tools/records/records.toml) as a table in the
// program. No state, no allocation in the table; texts live as long as the program. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace records {

using Bytes = std::span<const unsigned char>;

enum E_KIND { KIND_U8, KIND_U16, KIND_U32, KIND_I32, KIND_TEXT, KIND_BYTES };

struct Word {
    std::uint32_t number;
    std::string_view word;
};

struct Field {
    std::string_view name;
    std::size_t at;     // offset
    std::size_t width;  // bytes
    E_KIND kind;
    std::span<const Word> words;  // empty: the number is a number
    std::string_view always;      // the bytes that it always holds; empty: any
    bool hex;                     // show numbers as 0x...
    bool unused;                  // no meaning, zero from the service
    bool any;                     // no meaning, may be anything
    std::string_view says;        // one line for people
};

struct Record {
    std::string_view name;
    std::size_t size;
    std::size_t minimum;  // what the service takes; equals size where nothing less is taken
    bool longer;          // more bytes are taken too
    std::string_view from;
    std::span<const std::string_view> to;
    std::span<const Field> fields;  // in order, covering every byte
    std::string_view says;
};

struct Process {
    std::string_view name;  // of its inbox
    std::uint64_t mask;
};

std::span<const Record> All();
std::span<const Process> Processes();

const Record* Find(std::string_view name);  // null: no such record

// The first description that fits what `sender` sent to `receiver`; null when none does. "usb" and "monitor"
// as receiver are the service's own queues.
const Record* Identify(std::string_view sender, std::string_view receiver, Bytes bytes);

const Field* FindField(const Record& record, std::string_view name);

// False: the record ends before or inside the field. A text may end early.
bool Holds(const Field& field, Bytes bytes);

// What of a field the bytes hold; a record that ends before or inside the field reads as if zeros followed.
std::int64_t Number(const Field& field, Bytes bytes);  // of kinds u8 to i32
std::string Text(const Field& field, Bytes bytes);  // of kind text: up to its first zero, bytes as they are
std::string_view WordOf(const Field& field, Bytes bytes);  // empty: no words, or none for this number

// For people: the word, else the number (hex where the field says so), "quoted text" with control bytes and
// invalid UTF-8 escaped, or bytes as hex digits.
std::string Say(const Field& field, Bytes bytes);

// A field with a meaning that is not always the same: neither fixed nor unused.
bool SaysSomething(const Field& field);

// What is wrong with the bytes: an unused field that is not zero, a text without a terminator or with
// something behind it, a record that ends before its last field.
std::vector<std::string> Faults(const Record& record, Bytes bytes);

// A record with its fixed bytes in place and zeros else; then set field by field. `value` is a word, a number
// (decimal or 0x...), a text or hex digits, by the field's kind; false when it cannot be that.
std::vector<unsigned char> Blank(const Record& record);
bool Set(const Field& field, std::string_view value, std::vector<unsigned char>& bytes);

// One line: the record's name, every field that says something as name=value, then each fault in brackets.
// Without a record: how many bytes, and the first of them.
std::string Describe(const Record* record, Bytes bytes);

}  // namespace records
