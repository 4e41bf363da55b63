#include "node/UPathIndex.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "node/UNode.h"

namespace dcm::usb {

namespace {

constexpr std::size_t kFirstBuckets = 64;  // a car's usual number of devices without growing
constexpr std::uint64_t kSeed = 0x9e3779b97f4a7c15;
constexpr std::uint64_t kFactor = 0xff51afd7ed558ccd;  // odd, its bits well mixed

std::uint64_t Load(const char* bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

std::uint64_t Mix(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * kFactor;
    return hash ^ hash >> 32;
}

// The hash of the first `length` bytes, whose whole strides but the last bytes (1 to 8) gave `stem`.
std::uint64_t HashEnd(std::uint64_t stem, const char* path, std::size_t length) {
    std::uint64_t tail = 0;
    if (length >= sizeof tail)
        tail = Load(path + length - sizeof tail) >> (-length % sizeof tail * 8);
    else
        std::memcpy(&tail, path, length);
    return Mix(stem, tail ^ length);
}

struct Hashes {
    std::uint64_t stem;
    std::uint64_t path;
};

Hashes HashOf(const char* path, std::size_t length) {
    std::uint64_t stem = kSeed;
    for (std::size_t at = 0; at + sizeof stem < length; at += sizeof stem)
        stem = Mix(stem, Load(path + at));
    return {stem, HashEnd(stem, path, length)};
}

}  // namespace

UPathIndex::UPathIndex() : m_buckets(kFirstBuckets), m_ends(kFirstBuckets) {}

UNode* UPathIndex::Find(const char* path) const {
    const std::size_t length = std::strlen(path);
    return length == 0 ? nullptr : FindHashed(HashOf(path, length).path, path, length);
}

UNode* UPathIndex::FindHashed(std::uint64_t hash, const char* path, std::size_t length) const {
    UNode* node = m_buckets[hash & (m_buckets.size() - 1)];
    for (; node; node = node->m_place.next_in_bucket) {
        const UNode::Place& place = node->m_place;
        if (place.path_hash == hash && place.path_length == length &&
            std::memcmp(node->m_devpath, path, length) == 0)
            break;
    }
    return node;
}

UNode* UPathIndex::FindDeepestAbove(const char* path) const {
    const std::size_t length = std::strlen(path);
    const std::size_t mask = m_ends.size() - 1;
    UNode* deepest = nullptr;
    std::uint64_t stem = kSeed;
    for (std::size_t at = 0; at + 1 < length; at += kStride) {
        const Ends& ends = m_ends[stem & mask];
        const bool none =
            (ends[0] | ends[1] | ends[2] | ends[3] | ends[4] | ends[5] | ends[6] | ends[7]) == 0;
        const std::size_t most = none ? 0 : std::min(kStride, length - 1 - at);
        for (std::size_t behind = 1; behind <= most; ++behind) {
            if (ends[behind - 1] == 0) continue;
            UNode* node = FindHashed(HashEnd(stem, path, at + behind), path, at + behind);
            if (node) deepest = node;
        }
        if (at + kStride < length) stem = Mix(stem, Load(path + at));
    }
    return deepest;
}

void UPathIndex::Insert(UNode* node) {
    if (m_size == m_buckets.size()) Grow();
    UNode::Place& place = node->m_place;
    place.path_length = std::strlen(node->m_devpath);
    const Hashes hashes = HashOf(node->m_devpath, place.path_length);
    place.stem_hash = hashes.stem;
    place.path_hash = hashes.path;
    Link(node);
    ++m_size;
}

void UPathIndex::Remove(UNode* node) {
    const UNode::Place& place = node->m_place;
    UNode** link = &m_buckets[place.path_hash & (m_buckets.size() - 1)];
    while (*link != node)
        link = &(*link)->m_place.next_in_bucket;
    *link = place.next_in_bucket;
    --m_ends[place.stem_hash & (m_ends.size() - 1)][(place.path_length - 1) % kStride];
    --m_size;
}

void UPathIndex::Link(UNode* node) {
    UNode::Place& place = node->m_place;
    UNode*& bucket = m_buckets[place.path_hash & (m_buckets.size() - 1)];
    place.next_in_bucket = bucket;
    bucket = node;
    ++m_ends[place.stem_hash & (m_ends.size() - 1)][(place.path_length - 1) % kStride];
}

void UPathIndex::Grow() {
    const std::vector<UNode*> old = std::move(m_buckets);
    m_buckets.assign(old.size() * 2, nullptr);
    m_ends.assign(old.size() * 2, Ends{});
    for (UNode* node : old) {
        while (node) {
            UNode* next = node->m_place.next_in_bucket;
            Link(node);
            node = next;
        }
    }
}

}  // namespace dcm::usb
