#include "node/UPathIndex.h"

#include <bit>
#include <cstring>
#include <utility>

#include "node/UNode.h"

namespace dcm::usb {

namespace {

constexpr unsigned kHashBits = 64;
constexpr unsigned kFirstBits = 6;  // a car's usual number of devices without growing
constexpr unsigned kEndsBits =
    3;  // so many more slots than buckets: stems that share one cost a look in vain
constexpr std::uint64_t kSeed = 0x9e3779b97f4a7c15;
constexpr std::uint64_t kFactor1 = 0xff51afd7ed558ccd;  // both odd, their bits well mixed
constexpr std::uint64_t kFactor2 = 0xc4ceb9fe1a85ec53;

std::uint64_t Load(const char* bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// Each byte moves the highest bits of the result.
inline std::uint64_t Mix(std::uint64_t hash, std::uint64_t word1, std::uint64_t word2) {
    return (std::rotl(hash, 32) ^ word1) * kFactor1 + word2 * kFactor2;
}

// The hash of the first `length` bytes, of which whole strides gave `stem`.
inline std::uint64_t HashEnd(std::uint64_t stem, const char* path, std::size_t length) {
    constexpr std::size_t word = sizeof stem;
    const char* end = path + length;
    std::uint64_t word1 = 0;
    std::uint64_t word2 = 0;
    if (length >= 2 * word) {  // some bytes are in the stem already: no harm
        word1 = Load(end - 2 * word);
        word2 = Load(end - word);
    } else if (length >= word) {
        word1 = Load(path);
        word2 = Load(end - word);
    } else {
        std::memcpy(&word1, path, length);
    }
    return Mix(Mix(stem, word1, word2), length, 0);
}

}  // namespace

UPathIndex::Key::Key(const char* path) : m_path(path), m_length(std::strlen(path)) {
    m_last = m_length == 0 ? 0 : (m_length - 1) / kStride;
    if (m_last >= kNear) {
        m_far = std::make_unique<std::uint64_t[]>(m_last + 1);
        m_stems = m_far.get();
    }
    std::uint64_t* out = m_stems;
    std::uint64_t stem = kSeed;
    for (const char* end = path + m_last * kStride; path != end; path += kStride) {
        *out++ = stem;
        stem = Mix(stem, Load(path), Load(path + kStride / 2));
    }
    *out = stem;
    if (m_length != 0) m_hash = HashEnd(stem, m_path, m_length);
}

UPathIndex::UPathIndex()
    : m_bits(kFirstBits), m_buckets(1u << kFirstBits), m_ends(1u << (kFirstBits + kEndsBits)) {}

inline UNode* UPathIndex::FindHashed(std::uint64_t hash, const char* path, std::size_t length) const {
    for (UNode* node = m_buckets[hash >> (kHashBits - m_bits)]; node; node = node->m_place.next_in_bucket) {
        const UNode::Place& place = node->m_place;
        if (place.path_hash == hash && place.path_length == length &&
            std::memcmp(node->m_devpath, path, length) == 0)
            return node;
    }
    return nullptr;
}

UNode* UPathIndex::Find(const Key& key) const {
    return key.m_length == 0 ? nullptr : FindHashed(key.m_hash, key.m_path, key.m_length);
}

UNode* UPathIndex::FindAndRemember(const char* path) {
    UNode* node = Find(Key(path));
    if (node) Remember(node);
    return node;
}

inline void UPathIndex::Remember(UNode* node) {
    m_recent = node;
    m_recent_path = node->m_devpath;
}

inline UNode* UPathIndex::FindDeepestAbove(const Key& key) {
    if (key.m_length == 0) return nullptr;
    const std::uint16_t* slots = m_ends.data();
    const unsigned shift = kHashBits - m_bits - kEndsBits;
    // In the last stride only what is shorter than the path itself.
    unsigned allowed = (1u << (key.m_length - 1) % kStride) - 1;
    for (std::size_t strides = key.m_last + 1; strides-- > 0; allowed = ~0u) {
        const std::uint64_t stem = key.m_stems[strides];
        unsigned ends = slots[stem >> shift] & allowed;
        while (ends != 0) {
            const unsigned bit = static_cast<unsigned>(std::bit_width(ends)) - 1;
            const std::size_t length = strides * kStride + bit + 1;
            if (UNode* node = FindHashed(HashEnd(stem, key.m_path, length), key.m_path, length)) return node;
            ends ^= 1u << bit;
            ++m_vain;
        }
    }
    return nullptr;
}

UNode* UPathIndex::Insert(UNode* node, const Key& key) {
    UNode* above = FindDeepestAbove(key);
    if (m_size == m_buckets.size())
        Rebuild(m_bits + 1);
    else if (m_vain > m_buckets.size())
        Rebuild(m_bits);  // without the ends of the paths that were removed
    UNode::Place& place = node->m_place;
    place.path_length = key.m_length;
    place.path_hash = key.m_hash;
    place.stem_hash = key.m_stems[key.m_last];
    Link(node);
    ++m_size;
    Remember(node);
    return above;
}

void UPathIndex::Remove(UNode* node) {
    if (node == m_recent) {
        m_recent = nullptr;
        m_recent_path = "";
    }
    UNode** link = &m_buckets[node->m_place.path_hash >> (kHashBits - m_bits)];
    while (*link != node)
        link = &(*link)->m_place.next_in_bucket;
    *link = node->m_place.next_in_bucket;
    --m_size;  // Other paths may end where this one did, so the bit in m_ends stays.
}

inline void UPathIndex::Link(UNode* node) {
    UNode::Place& place = node->m_place;
    UNode*& bucket = m_buckets[place.path_hash >> (kHashBits - m_bits)];
    place.next_in_bucket = bucket;
    bucket = node;
    std::uint16_t& ends = m_ends[place.stem_hash >> (kHashBits - m_bits - kEndsBits)];
    ends = static_cast<std::uint16_t>(ends | 1u << (place.path_length - 1) % kStride);
}

void UPathIndex::Rebuild(unsigned bits) {
    const std::vector<UNode*> old = std::move(m_buckets);
    m_bits = bits;
    m_buckets.assign(std::size_t{1} << bits, nullptr);
    m_ends.assign(std::size_t{1} << (bits + kEndsBits), 0);
    m_vain = 0;
    for (UNode* node : old) {
        while (node) {
            UNode* next = node->m_place.next_in_bucket;
            Link(node);
            node = next;
        }
    }
}

}  // namespace dcm::usb
