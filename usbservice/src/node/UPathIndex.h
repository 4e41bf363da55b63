// Finds nodes by path, and the deepest node above a path, at a cost that depends on the length of the path
// but not on the number of nodes. With the lock of the list that owns it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace dcm::usb {

class UNode;

// "Above" is the plain text prefix. A prefix may end at any byte, so paths are hashed in strides of eight
// bytes, and for each stem (so many whole strides) it is counted how many paths end how many bytes behind it:
// only where a path can end is one looked for.
class UPathIndex {
public:
    UPathIndex();

    UNode* Find(const char* path) const;
    // The node with the longest path that is a proper prefix of `path`, or null.
    UNode* FindDeepestAbove(const char* path) const;

    // The path must not be in the index yet, and neither null nor empty.
    void Insert(UNode* node);
    void Remove(UNode* node);

private:
    static constexpr std::size_t kStride = 8;
    using Ends = std::array<std::uint32_t, kStride>;  // index: bytes behind the stem, minus one

    UNode* FindHashed(std::uint64_t hash, const char* path, std::size_t length) const;
    void Link(UNode* node);
    void Grow();

    std::vector<UNode*> m_buckets;  // by the path's hash; as many as a power of two
    std::vector<Ends> m_ends;       // by the stem's hash; stems that share a slot cost a look more, no more
    std::size_t m_size = 0;
};

}  // namespace dcm::usb
