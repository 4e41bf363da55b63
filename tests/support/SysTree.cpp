#include "support/SysTree.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "misc/UMisc.h"

namespace test {

SysTree::SysTree() : m_old_root(dcm::usb::UString::kRootSysPath) {
    std::string folder = (std::filesystem::temp_directory_path() / "systree.XXXXXX").string();
    if (!mkdtemp(folder.data())) throw std::runtime_error("no temporary folder for a made-up /sys");
    m_root = folder;
    dcm::usb::UString::kRootSysPath = m_root.c_str();
}

SysTree::~SysTree() {
    dcm::usb::UString::kRootSysPath = m_old_root;
    std::error_code ignored;  // a folder that stays behind in /tmp harms no test
    std::filesystem::remove_all(m_root, ignored);
}

void SysTree::Set(const std::string& path, const std::string& text) const {
    const std::filesystem::path file = m_root + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

void SysTree::Remove(const std::string& path) const {
    std::filesystem::remove_all(m_root + path);
}

std::string SysTree::Get(const std::string& path) const {
    std::ifstream in(m_root + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace test
