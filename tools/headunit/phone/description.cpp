#include "description.h"

#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace headunit {

namespace {

constexpr unsigned kReturnsAfterMs = 300;
constexpr unsigned kLeavesAfterMs = 50;
constexpr std::uint16_t kVersion = 0x0100;
constexpr std::uint16_t kBulkBytes = 64;  // the largest at full speed
constexpr std::uint16_t kInterruptBytes = 16;
constexpr std::size_t kTextCharacters = 126;  // the most that a string descriptor holds

std::string Place(const toml::node& node, std::string_view key) {
    const toml::source_region& source = node.source();
    const std::string file = source.path ? *source.path : "?";
    return file + ':' + std::to_string(source.begin.line) + ": " + std::string(key);
}

[[noreturn]] void Fail(const toml::node& node, std::string_view key, const std::string& reason) {
    throw DescriptionError(Place(node, key) + ": " + reason);
}

void AllowOnly(const toml::table& table, const std::set<std::string_view>& known) {
    for (const auto& [key, value] : table)
        if (!known.contains(key.str())) Fail(value, key.str(), "there is no such key");
}

template <typename Number>
Number ToNumber(const toml::node& node, std::string_view key) {
    const auto number = node.value_exact<std::int64_t>();
    if (!number || *number < 0 || *number > std::int64_t{std::numeric_limits<Number>::max()})
        Fail(node, key, "must be a number from 0 to " + std::to_string(std::numeric_limits<Number>::max()));
    return static_cast<Number>(*number);
}

// A mode: what it does not say itself is said outside of the modes, for all of them.
struct ModeTable {
    const toml::table& own;
    const toml::table& common;

    const toml::node* get(std::string_view key) const {
        return own.get(key) ? own.get(key) : common.get(key);
    }
};

// Table: toml::table or ModeTable.
template <typename Number, typename Table>
Number NumberOr(const Table& table, std::string_view key, Number otherwise) {
    const toml::node* node = table.get(key);
    return node ? ToNumber<Number>(*node, key) : otherwise;
}

std::string ToText(const toml::node& node, std::string_view key) {
    const auto text = node.value_exact<std::string>();
    const auto is_plain = [](char one) { return one >= ' ' && one <= '~'; };
    if (!text || !std::ranges::all_of(*text, is_plain)) Fail(node, key, "must be a text of ASCII characters");
    return *text;
}

template <typename Table>
std::string TextOf(const Table& table, std::string_view key) {
    const toml::node* node = table.get(key);
    return node ? ToText(*node, key) : std::string();
}

const toml::array& ToArray(const toml::node& node, std::string_view key) {
    if (!node.is_array()) Fail(node, key, "must be an array");
    return *node.as_array();
}

const toml::table& ToTable(const toml::node& node, std::string_view key) {
    if (!node.is_table()) Fail(node, key, "must be a table");
    return *node.as_table();
}

std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

std::optional<unsigned> Parse(const std::string& word, int base) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
    if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
    return number;
}

// "02 00"
std::optional<Bytes> ParseBytes(const std::string& text) {
    Bytes bytes;
    for (const std::string& word : Words(text)) {
        const auto number = Parse(word, 16);
        if (word.size() != 2 || !number) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(*number));
    }
    return bytes;
}

Bytes BytesOf(const toml::table& table, std::string_view key) {
    const auto bytes = ParseBytes(TextOf(table, key));
    if (!bytes) Fail(*table.get(key), key, "must be bytes like \"02 ff\"");
    return *bytes;
}

template <typename Table>
ClassCodes ClassOf(const Table& table) {
    const toml::node* node = table.get("class");
    if (!node) return {};
    const toml::array& codes = ToArray(*node, "class");
    if (codes.size() != 3) Fail(*node, "class", "must be class, subclass and protocol");
    return {ToNumber<std::uint8_t>(codes[0], "class"), ToNumber<std::uint8_t>(codes[1], "class"),
            ToNumber<std::uint8_t>(codes[2], "class")};
}

// "in bulk", "out bulk 32", "in interrupt"
Endpoint ToEndpoint(const toml::node& node) {
    const std::vector<std::string> words = Words(ToText(node, "endpoints"));
    const bool known = (words.size() == 2 || words.size() == 3) && (words[0] == "in" || words[0] == "out") &&
                       (words[1] == "bulk" || words[1] == "interrupt");
    const auto size = words.size() == 3 ? Parse(words[2], 10) : std::optional<unsigned>(0);
    if (!known || !size || *size > kBulkBytes)
        Fail(node, "endpoints", "must be like \"in bulk\", \"out bulk 64\" or \"in interrupt 16\"");
    const bool is_bulk = words[1] == "bulk";
    const unsigned usual = is_bulk ? kBulkBytes : kInterruptBytes;
    return {words[0] == "in", is_bulk ? EndpointType::kBulk : EndpointType::kInterrupt,
            static_cast<std::uint16_t>(*size > 0 ? *size : usual)};
}

// Words of "05 24 06 @0 @1 $text"
std::vector<std::string> ExtraOf(const toml::table& table) {
    std::vector<std::string> words = Words(TextOf(table, "extra"));
    const auto is_known = [](const std::string& word) {
        if (word[0] == '$') return word.size() > 1;
        return word.size() == 2 && Parse(word[0] == '@' ? word.substr(1) : word, 16);
    };
    if (!std::ranges::all_of(words, is_known))
        Fail(*table.get("extra"), "extra", "must be bytes like \"05 24\", @ with a digit, or $ with a text");
    return words;
}

Interface ToInterface(const toml::table& table) {
    AllowOnly(table, {"class", "name", "extra", "report", "endpoints"});
    Interface interface {
        ClassOf(table), TextOf(table, "name"), ExtraOf(table), BytesOf(table, "report"), {}
    };
    if (const toml::node* endpoints = table.get("endpoints"))
        for (const toml::node& endpoint : ToArray(*endpoints, "endpoints"))
            interface.endpoints.push_back(ToEndpoint(endpoint));
    return interface;
}

Function ToFunction(const toml::node& node, std::string_view name) {
    Function function;
    for (const toml::node& interface : ToArray(node, name))
        function.push_back(ToInterface(ToTable(interface, name)));
    return function;
}

using Functions = std::map<std::string, Function, std::less<>>;

void TakeFunctions(const toml::table& table, Functions& functions) {
    for (const auto& [name, node] : table)
        functions.insert_or_assign(std::string(name.str()), ToFunction(node, name.str()));
}

std::vector<Function> ToConfiguration(const toml::node& node, const Functions& functions) {
    std::vector<Function> configuration;
    for (const toml::node& named : ToArray(node, "configurations")) {
        const auto found = functions.find(ToText(named, "configurations"));
        if (found == functions.end())
            Fail(named, "configurations", "there is no function \"" + ToText(named, "configurations") + '"');
        configuration.push_back(found->second);
    }
    return configuration;
}

const std::set<std::string_view> kModeKeys = {"vid",          "pid",     "version", "class",
                                              "manufacturer", "product", "serial",  "configurations"};

Mode ToMode(const ModeTable& table, const Functions& functions) {
    Mode mode{NumberOr<std::uint16_t>(table, "vid", 0),
              NumberOr<std::uint16_t>(table, "pid", 0),
              NumberOr<std::uint16_t>(table, "version", kVersion),
              ClassOf(table),
              TextOf(table, "manufacturer"),
              TextOf(table, "product"),
              TextOf(table, "serial"),
              {}};
    for (const char* key : {"manufacturer", "product", "serial"})
        if (TextOf(table, key).size() > kTextCharacters)
            Fail(*table.get(key), key, "is longer than 126 characters");
    const toml::node* configurations = table.get("configurations");
    if (!configurations || ToArray(*configurations, "configurations").empty())
        Fail(table.own, "configurations", "must name the functions of at least one configuration");
    for (const toml::node& configuration : *configurations->as_array())
        mode.configurations.push_back(ToConfiguration(configuration, functions));
    return mode;
}

// "ok", "stall", "never" or bytes
Answer ToAnswer(const toml::node& node) {
    const std::string text = ToText(node, "answer");
    if (text == "ok") return {Answer::kData, {}};
    if (text == "stall") return {Answer::kStall, {}};
    if (text == "never") return {Answer::kNever, {}};
    const auto bytes = ParseBytes(text);
    if (!bytes) Fail(node, "answer", R"(must be "ok", "stall", "never" or bytes like "02 ff")");
    return {Answer::kData, *bytes};
}

std::vector<Answer> ToAnswers(const toml::node& node) {
    if (!node.is_array()) return {ToAnswer(node)};
    std::vector<Answer> answers;
    for (const toml::node& one : *node.as_array())
        answers.push_back(ToAnswer(one));
    if (answers.empty()) Fail(node, "answer", "must not be empty");
    return answers;
}

std::optional<std::uint16_t> Optional(const toml::table& table, std::string_view key) {
    const toml::node* node = table.get(key);
    return node ? std::optional(ToNumber<std::uint16_t>(*node, key)) : std::nullopt;
}

bool FlagOf(const toml::table& table, std::string_view key) {
    const toml::node* node = table.get(key);
    if (!node) return false;
    if (!node->is_boolean()) Fail(*node, key, "must be true or false");
    return node->as_boolean()->get();
}

Request ToRequest(const toml::table& table, std::string_view name) {
    AllowOnly(table, {"type", "request", "value", "index", "answer", "leaves"});
    for (const char* needed : {"type", "request", "answer"})
        if (!table.contains(needed)) Fail(table, name, std::string("has no ") + needed);
    return {ToNumber<std::uint8_t>(*table.get("type"), "type"),
            ToNumber<std::uint8_t>(*table.get("request"), "request"),
            Optional(table, "value"),
            Optional(table, "index"),
            ToAnswers(*table.get("answer")),
            FlagOf(table, "leaves")};
}

// "never", "stays", "accessory", "accessory after 200"
Return ToReturn(const toml::node& node, const Description& description) {
    const std::vector<std::string> words = Words(ToText(node, "returns"));
    if (words == std::vector<std::string>{"never"}) return {Return::kNever, {}, 0};
    if (words == std::vector<std::string>{"stays"}) return {Return::kStays, {}, 0};
    const bool has_time = words.size() == 3 && words[1] == "after";
    const auto after = has_time ? Parse(words[2], 10) : std::optional<unsigned>(kReturnsAfterMs);
    if ((words.size() != 1 && !has_time) || !after)
        Fail(node, "returns", R"(must be like "never", "stays", "accessory" or "accessory after 200")");
    if (!description.modes.contains(words[0])) Fail(node, "returns", "there is no mode \"" + words[0] + '"');
    return {Return::kComes, words[0], *after};
}

// Tables are merged, anything else replaces what was there. Moved, as a copy forgets which file it came from.
void Merge(toml::table& base, toml::table&& over) {
    for (auto&& [key, node] : over) {
        toml::node* former = base.get(key);
        if (former && former->is_table() && node.is_table())
            Merge(*former->as_table(), std::move(*node.as_table()));
        else
            node.visit([&](auto& value) { base.insert_or_assign(key, std::move(value)); });
    }
}

toml::table ReadFile(const std::string& file) {
    try {
        return toml::parse_file(file);
    } catch (const toml::parse_error& error) {
        throw DescriptionError(file + ':' + std::to_string(error.source().begin.line) + ": " +
                               std::string(error.description()));
    }
}

toml::table ReadOverrides(const std::string& overrides) {
    try {
        return toml::parse(overrides, std::string_view("overrides"));
    } catch (const toml::parse_error& error) {
        throw DescriptionError("overrides:" + std::to_string(error.source().begin.line) + ": " +
                               std::string(error.description()) + "\n" + overrides);
    }
}

void TakeModes(const toml::table& table, const Functions& functions, Description& description) {
    const toml::node* modes = table.get("modes");
    if (!modes) {
        description.modes.emplace("phone", ToMode({table, table}, functions));
        return;
    }
    for (const auto& [name, node] : ToTable(*modes, "modes")) {
        const toml::table& own = ToTable(node, name.str());
        AllowOnly(own, kModeKeys);
        description.modes.emplace(std::string(name.str()), ToMode({own, table}, functions));
    }
}

}  // namespace

Description ReadDescription(const std::string& file, const std::string& overrides) {
    toml::table table = ReadFile(file);
    Merge(table, ReadOverrides(overrides));
    std::set<std::string_view> known = {"starts", "modes", "functions", "answers", "returns", "leaves_after"};
    known.insert(kModeKeys.begin(), kModeKeys.end());
    AllowOnly(table, known);

    Functions functions;
    TakeFunctions(ReadFile(std::filesystem::path(file).parent_path() / "functions.toml"), functions);
    if (const toml::node* own = table.get("functions")) TakeFunctions(ToTable(*own, "functions"), functions);

    Description description;
    TakeModes(table, functions, description);
    description.starts = table.contains("starts") ? TextOf(table, "starts") : "phone";
    if (!description.modes.contains(description.starts))
        Fail(table.contains("starts") ? *table.get("starts") : table, "starts",
             "there is no mode \"" + description.starts + '"');
    if (const toml::node* answers = table.get("answers"))
        for (const auto& [name, node] : ToTable(*answers, "answers"))
            description.requests.push_back(ToRequest(ToTable(node, name.str()), name.str()));
    const auto exactness = [](const Request& one) {
        return int{one.value.has_value()} + one.index.has_value();
    };
    std::ranges::stable_sort(description.requests, std::ranges::greater(), exactness);
    if (const toml::node* returns = table.get("returns"))
        for (const toml::node& one : ToArray(*returns, "returns"))
            description.returns.push_back(ToReturn(one, description));
    if (description.returns.empty()) description.returns.push_back({Return::kStays, {}, 0});
    description.leaves_after_ms = NumberOr<unsigned>(table, "leaves_after", kLeavesAfterMs);
    return description;
}

}  // namespace headunit
