// A made-up /sys in a temporary folder: UString reads attributes there while it lives. One at a time.
#pragma once

#include <string>

namespace test {

class SysTree {
public:
    SysTree();
    ~SysTree();  // removes the folder and restores the root
    SysTree(const SysTree&) = delete;
    SysTree& operator=(const SysTree&) = delete;

    const std::string& Root() const { return m_root; }

    // Writes the attribute file, its folders included; `path` begins with '/'. The text is written as it is.
    void Set(const std::string& path, const std::string& text) const;
    // Removes the attribute, or a folder with all that is in it.
    void Remove(const std::string& path) const;
    // What stands in an attribute now; empty when it is missing.
    std::string Get(const std::string& path) const;

private:
    std::string m_root;
    const char* m_old_root;
};

}  // namespace test
