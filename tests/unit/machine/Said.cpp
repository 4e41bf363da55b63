#include "Said.h"

#include <algorithm>
#include <set>

#include "support/Format.h"

namespace test {
namespace {

unsigned Number(const Bytes& bytes, std::size_t at, std::size_t size) {
    unsigned number = 0;
    for (std::size_t byte = size; byte-- > 0;)
        number = number << 8 | (at + byte < bytes.size() ? bytes[at + byte] : 0);
    return number;
}

std::string Text(const Bytes& bytes, std::size_t at) {
    std::string text;
    for (; at < bytes.size() && bytes[at]; ++at)
        text += static_cast<char>(bytes[at]);
    return text;
}

std::string Line(const char* mark, const Saying& saying) {
    return std::string("    ") + mark + " " + saying.text + "\n";
}

// Where two records of the same form differ.
std::string FirstDifference(const Bytes& expected, const Bytes& found) {
    if (expected.size() != found.size())
        return Format("      lengths %zu and %zu\n", expected.size(), found.size());
    const auto at = std::mismatch(expected.begin(), expected.end(), found.begin()).first - expected.begin();
    return Format("      byte %zd: expected %02x, found %02x\n", at, expected[at], found[at]);
}

}  // namespace

std::string InWords(E_RECEIVER receiver, const Bytes& record) {
    if (receiver == TO_MEDIA)
        return Format("cmd %u sub %u type %u port %u %04x:%04x %s", Number(record, 4, 4),
                      Number(record, 8, 4), Number(record, 12, 4), Number(record, 16, 4),
                      Number(record, 20, 2), Number(record, 22, 2), Text(record, 36).c_str());
    const std::string head = Format("id %u port %u", Number(record, 4, 4), Number(record, 8, 1));
    if (record.size() == 364)
        return head + Format(" type %u %04x:%04x capa %u,%u,%u,%u %s", Number(record, 12, 4),
                             Number(record, 16, 2), Number(record, 18, 2), Number(record, 28, 4),
                             Number(record, 32, 4), Number(record, 36, 4), Number(record, 40, 4),
                             Text(record, 44).c_str());
    if (record.size() == 244)
        return head + Format(" result %u %04x:%04x %s devid '%s'", Number(record, 240, 4),
                             Number(record, 10, 2), Number(record, 12, 2), Text(record, 14).c_str(),
                             Text(record, 206).c_str());
    if (record.size() == 348)
        return head + Format(" type %u %04x:%04x %s", Number(record, 12, 4), Number(record, 16, 2),
                             Number(record, 18, 2), Text(record, 28).c_str());
    return head;
}

std::string Difference(const Said& expected, const Said& found) {
    std::set<Said::key_type> keys;
    for (const auto& [key, sayings] : expected)
        keys.insert(key);
    for (const auto& [key, sayings] : found)
        keys.insert(key);
    std::string text;
    static const std::vector<Saying> kNothing;
    for (const Said::key_type& key : keys) {
        const auto wanted = expected.find(key);
        const auto was = found.find(key);
        const std::vector<Saying>& a = wanted == expected.end() ? kNothing : wanted->second;
        const std::vector<Saying>& b = was == found.end() ? kNothing : was->second;
        if (a == b) continue;
        text += Format("  to %s, port %u:\n", kReceiverName[key.first], key.second);
        for (const Saying& saying : a)
            text += Line("expected", saying);
        for (const Saying& saying : b)
            text += Line("found   ", saying);
        for (std::size_t at = 0; at < std::min(a.size(), b.size()); ++at)
            if (!a[at].bytes.empty() && a[at].bytes != b[at].bytes)
                text += FirstDifference(a[at].bytes, b[at].bytes);
    }
    return text;
}

}  // namespace test
