// Finds nodes by path, and the deepest node above a path, at a cost that depends on the length of the path
// but not on the number of nodes. With the lock of the list that owns it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace dcm::usb {

class UNode;

// "Above" is the plain text prefix. A prefix may end at any byte, so paths are hashed in strides of sixteen
// bytes, and it is noted for each stem (so many whole strides) how far behind it paths end: only where a path
// can end is one looked for.
class UPathIndex {
public:
    static constexpr std::size_t kStride = 16;

    // A path, hashed once for all that is asked about it; the text must outlive it.
    class Key {
    public:
        explicit Key(const char* path);  // not null
        Key(const Key&) = delete;
        Key& operator=(const Key&) = delete;

    private:
        friend class UPathIndex;
        static constexpr std::size_t kNear = 40;  // stems of all paths but odd ones

        const char* m_path;
        std::size_t m_length;
        std::size_t m_last;               // whole strides before the last bytes, of which there are 1 to 16
        std::uint64_t* m_stems = m_near;  // index: whole strides
        std::uint64_t m_hash = 0;         // of the whole path; nothing for an empty one
        std::unique_ptr<std::uint64_t[]> m_far;  // instead of m_near, when that is too short
        std::uint64_t m_near[kNear];             // filled as far as the path goes
    };

    UPathIndex();

    UNode* Find(const Key& key) const;
    UNode* Find(const char* path) {  // not null
        return std::strcmp(path, m_recent_path) == 0 ? m_recent : FindAndRemember(path);
    }

    // The key is the node's path, which must not be in the index yet and not empty. Returns the node with the
    // longest path that is a proper prefix, or null.
    UNode* Insert(UNode* node, const Key& key);
    void Remove(UNode* node);

private:
    UNode* FindHashed(std::uint64_t hash, const char* path, std::size_t length) const;
    UNode* FindAndRemember(const char* path);
    UNode* FindDeepestAbove(const Key& key);
    void Remember(UNode* node);
    void Link(UNode* node);
    void Rebuild(unsigned bits);

    // The slots are chosen by the highest bits of a hash, which all bytes of the text have moved.
    unsigned m_bits;                    // two to the power of it are the buckets
    std::vector<UNode*> m_buckets;      // by the path's hash
    std::vector<std::uint16_t> m_ends;  // by the stem's hash: bit 0, a path may end one byte behind it, ...
    std::size_t m_size = 0;
    std::size_t m_vain = 0;  // looks where no path ended, since m_ends was made: some had gone

    // Inserted or found last: an event asks for the same node several times.
    UNode* m_recent = nullptr;
    const char* m_recent_path = "";  // the node's own
};

}  // namespace dcm::usb
