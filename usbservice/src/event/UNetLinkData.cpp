#include "event/UNetLinkData.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "event/EventText.h"

namespace dcm::usb {
namespace {

constexpr std::array<std::string_view, kUeventKeys> kKeys = [] {
    std::array<std::string_view, kUeventKeys> keys;
    for (int key = 0; key < kUeventKeys; ++key)
        keys[key] = UEventData::kStringID[key];
    return keys;
}();

constexpr std::size_t kLongestKey = [] {
    std::size_t longest = 0;
    for (const std::string_view key : kKeys)
        longest = key.size() > longest ? key.size() : longest;
    return longest;
}();

// A key is found by its '=': it is the only one in the key, and no two keys can end at the same one.
constexpr bool EachEndsInItsOnlyEqualsSign() {
    for (const std::string_view key : kKeys)
        if (key.size() < 2 || key.find('=') != key.size() - 1) return false;
    return true;
}
constexpr bool NoneEndsInAnother() {
    for (const std::string_view key : kKeys)
        for (const std::string_view other : kKeys)
            if (key != other && key.ends_with(other)) return false;
    return true;
}
static_assert(EachEndsInItsOnlyEqualsSign());
static_assert(NoneEndsInAnother());

// The last eight letters of a key are compared as one word; the longest keys have one more.
using Word = std::uint64_t;
constexpr std::size_t kWordBytes = sizeof(Word);
static_assert(kLongestKey <= kWordBytes + 2);

struct Ending {
    Word letters;
    Word mask;   // 0 where the key has no letter
    char first;  // of nine letters; 0 for a shorter key
};
constexpr std::array<Ending, kUeventKeys> kEndings = [] {
    std::array<Ending, kUeventKeys> endings;
    for (int key = 0; key < kUeventKeys; ++key) {
        std::array<char, kWordBytes> letters = {};
        std::array<char, kWordBytes> mask = {};
        const std::size_t size = kKeys[key].size() - 1;
        for (std::size_t at = 1; at <= size && at <= kWordBytes; ++at) {
            letters[kWordBytes - at] = kKeys[key][size - at];
            mask[kWordBytes - at] = '\xff';
        }
        const char first = size > kWordBytes ? kKeys[key][0] : '\0';
        endings[key] = {std::bit_cast<Word>(letters), std::bit_cast<Word>(mask), first};
    }
    return endings;
}();

// The keys by the letter that stands so many places before their '=': the place that tells most keys apart.
constexpr std::size_t kTellingPlace = 4;

struct KeysByLetter {
    signed char first[256];         // -1: no key has this letter there
    signed char next[kUeventKeys];  // -1: no other key has
};
constexpr KeysByLetter kByLetter = [] {
    KeysByLetter keys = {};
    for (signed char& first : keys.first)
        first = -1;
    for (int key = kUeventKeys - 1; key >= 0; --key) {
        const char letter = kKeys[key][kKeys[key].size() - 1 - kTellingPlace];
        signed char& first = keys.first[static_cast<unsigned char>(letter)];
        keys.next[key] = first;
        first = static_cast<signed char>(key);
    }
    return keys;
}();

// The key whose last letters stand at `word`, and the letter before them, if any, at `before`; -1 when there
// is none.
inline int KeyOf(const char* word, const char* before) {
    Word letters;
    std::memcpy(&letters, word, sizeof letters);
    for (int key = kByLetter.first[static_cast<unsigned char>(word[kWordBytes - kTellingPlace])]; key >= 0;
         key = kByLetter.next[key]) {
        const Ending& ending = kEndings[key];
        if ((letters & ending.mask) != ending.letters) continue;
        if (ending.first == '\0' || (before && *before == ending.first)) return key;
    }
    return -1;
}

// The key that ends at `equals`, all of it behind `begin`; -1 when there is none.
inline int KeyEndingAt(const char* equals, const char* begin) {
    const auto room = static_cast<std::size_t>(equals - begin);
    if (room > kWordBytes) return KeyOf(equals - kWordBytes, equals - kWordBytes - 1);
    char word[kWordBytes] = {};  // zeros are in no key
    std::memcpy(word + kWordBytes - room, begin, room);
    return KeyOf(word, nullptr);
}

const char* FindEquals(const char* from, const char* end) {
    return static_cast<const char*>(std::memchr(from, '=', static_cast<std::size_t>(end - from)));
}

}  // namespace

void UNetLinkData::ParseData(char* buf, int len) {
    if (!buf || len == 0) {
        ULOG(LOG_FAILED, "buffer is invalid %p %d", static_cast<void*>(buf), len);
        return;
    }
    for (const char*& value : m_values)
        value = nullptr;

    const char* end = buf + (len > 0 ? len : 1);  // keys begin before this
    const char* search_end = end;                 // and end before that
    if (end[-1] != '\0') search_end += strnlen(end, kLongestKey - 1);
    for (const char* equals = FindEquals(buf, search_end); equals;
         equals = FindEquals(equals + 1, search_end)) {
        const int key = KeyEndingAt(equals, buf);
        if (key < 0) continue;
        const char* value = equals + 1;
        if (equals < end || value - kKeys[key].size() < end) m_values[key] = value;
    }
}

void UNetLinkData::PrintData(bool summary) {
    if (summary)
        PrintSummary();
    else
        PrintDetails();
}

void UNetLinkData::PrintSummary() const {
    if (!m_values[KEY_DEVPATH]) return;
    ULOG(LOG_INFO, "seq%s-%s-%s %s%s", m_values[KEY_SEQNUM], m_values[KEY_ACTION], m_values[KEY_SUBSYSTEM],
         kStringID[KEY_DEVPATH], WithoutController(m_values[KEY_DEVPATH]));
}

void UNetLinkData::PrintDetails() const {
    for (int key = 0; key < kUeventKeys; ++key) {
        const bool in_summary =
            key == KEY_ACTION || key == KEY_DEVPATH || key == KEY_SUBSYSTEM || key == KEY_SEQNUM;
        if (m_values[key] && !in_summary) ULOG(LOG_INFO, "%s%s", kStringID[key], m_values[key]);
    }
}

E_ACTION UNetLinkData::GetAction() {
    const char* text = m_values[KEY_ACTION];
    if (!text) {
        ULOG(LOG_INFO, "there is no action");
        return ACTION_NONE;
    }
    const int action = IndexOf(kStringAction, text);
    if (action > 0) return static_cast<E_ACTION>(action);
    ULOG(LOG_INFO, "unknown action(%s)", text);
    return ACTION_NONE;
}

E_SUBSYSTEM UNetLinkData::GetSubSystem() {
    const char* text = m_values[KEY_SUBSYSTEM];
    if (!text) {
        ULOG(LOG_INFO, "there is no subsystem");
        return SUBSYSTEM_NONE;
    }
    const int subsystem = IndexOf(kStringSubsystem, text);
    // Deliberate: no log line for an unknown subsystem, most of the machine's events have one.
    return subsystem > 0 ? static_cast<E_SUBSYSTEM>(subsystem) : SUBSYSTEM_NONE;
}

int UNetLinkData::GetUsbDevType() {
    const char* text = m_values[KEY_DEVTYPE];
    if (!text) {
        ULOG(LOG_INFO, "there is no usb devtype");
        return USB_DEVTYPE_NONE;
    }
    const int type = IndexOf(kStringUsbDevType, text);
    if (type > 0) return type;
    ULOG(LOG_INFO, "unknown usb devtype(%s)", text);
    return USB_DEVTYPE_NONE;
}

int UNetLinkData::GetBlockDevType() {
    const char* text = m_values[KEY_DEVTYPE];
    if (!text) {
        ULOG(LOG_INFO, "there is no block devtype");
        return BLOCK_DEVTYPE_NONE;
    }
    const int type = IndexOf(kStringBlockDevType, text);
    if (type > 0) return type;
    ULOG(LOG_INFO, "unknown block devtype(%s)", text);
    return BLOCK_DEVTYPE_NONE;
}

void UNetLinkData::GetProduct(unsigned short* vendor, unsigned short* product) {
    if (!m_values[KEY_PRODUCT]) {
        ULOG(LOG_INFO, "there is no product");
        return;
    }
    ReadProduct(m_values[KEY_PRODUCT], vendor, product);
}

int UNetLinkData::GetCustomEvent() {
    const char* text = m_values[KEY_EVENT];
    if (!text) {
        ULOG(LOG_INFO, "there is no event");
        return 0;
    }
    if (UString::IsSameString(text, kStringCustomEvent[1])) return 1;
    ULOG(LOG_INFO, "unknown event(%s)", text);
    return 0;
}

unsigned char UNetLinkData::GetCustomEventPort() {
    if (!m_values[KEY_PORT_NUM]) {
        ULOG(LOG_INFO, "there is no event port");
        return 0;
    }
    return static_cast<unsigned char>(UString::ConvertString2Int(m_values[KEY_PORT_NUM]));
}

int UNetLinkData::GetEnumerate() {
    const char* text = m_values[KEY_ENUMERATE];
    if (!text) {
        ULOG(LOG_INFO, "there is no enumerate");
        return 0;
    }
    if (UString::IsSameString(text, kStringEnumerate[1])) return 1;
    ULOG(LOG_INFO, "unknown enumerate(%s)", text);
    return 0;
}

}  // namespace dcm::usb
