// Writes the MTP table as C++ source to standard output, from the device list of the libmtp that it is linked
// with. Runs on the build machine at build time. Where libmtp lists a pair of ids twice, its first row
// stands.
#include <libmtp.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

auto Ids(const LIBMTP_device_entry_t& row) {
    return std::make_tuple(row.vendor_id, row.product_id);
}

void PrintText(const std::string& text) {
    std::putchar('"');
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\' || byte == '?')
            std::printf("\\%03o", byte);
        else
            std::putchar(byte);
    }
    std::putchar('"');
}

// All texts behind each other, each once and with its NUL.
class Texts {
public:
    std::size_t Place(const char* text) {
        const auto [known, is_new] = m_places.try_emplace(text ? text : "", m_end);
        if (!is_new) return known->second;
        m_order.push_back(known->first);
        m_end += known->first.size() + 1;
        return known->second;
    }
    const std::vector<std::string>& order() const { return m_order; }

private:
    std::map<std::string, std::size_t> m_places;
    std::vector<std::string> m_order;
    std::size_t m_end = 0;
};

}  // namespace

int main() {
    LIBMTP_device_entry_t* list = nullptr;
    int count = 0;
    if (LIBMTP_Get_Supported_Devices_List(&list, &count) != 0 || !list || count <= 0) {
        std::fprintf(stderr, "libmtp gives no list of devices\n");
        return 1;
    }
    std::vector<LIBMTP_device_entry_t> rows(list, list + count);
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto& left, const auto& right) { return Ids(left) < Ids(right); });
    rows.erase(std::unique(rows.begin(), rows.end(),
                           [](const auto& left, const auto& right) { return Ids(left) == Ids(right); }),
               rows.end());
    std::printf(
        "// Made by the generator of the MTP table from libmtp's device list.\n#include \"Table.h\"\n\n"
        "namespace mtp {\n\nconst Row kRows[] = {\n");
    Texts texts;
    for (const LIBMTP_device_entry_t& row : rows) {
        const std::size_t vendor = texts.Place(row.vendor);
        const std::size_t product = texts.Place(row.product);
        std::printf("    {0x%04x, 0x%04x, %zu, %zu, 0x%08x},\n", row.vendor_id, row.product_id, vendor,
                    product, row.device_flags);
    }
    std::printf("};\n\nconst std::size_t kRowCount = %zu;\n\nconst char kTexts[] =\n", rows.size());
    for (const std::string& text : texts.order()) {
        std::printf("    ");
        PrintText(text);
        std::printf(" \"\\0\"\n");
    }
    std::printf("    ;\n\n}  // namespace mtp\n");
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}
