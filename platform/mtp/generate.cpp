// Writes the MTP table as C++ source to standard output, from the device list of the libmtp that it is linked
// with. Runs on the build machine at build time. Where libmtp lists a pair of ids twice, its first row
// stands.
#include <libmtp.h>

#include <algorithm>
#include <cstdio>
#include <tuple>
#include <vector>

namespace {

auto Ids(const LIBMTP_device_entry_t& row) {
    return std::make_tuple(row.vendor_id, row.product_id);
}

void PrintText(const char* text) {
    std::putchar('"');
    for (; text && *text; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\' || byte == '?')
            std::printf("\\%03o", byte);
        else
            std::putchar(byte);
    }
    std::putchar('"');
}

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
    for (const LIBMTP_device_entry_t& row : rows) {
        std::printf("    {0x%04x, 0x%04x, ", row.vendor_id, row.product_id);
        PrintText(row.vendor);
        std::printf(", ");
        PrintText(row.product);
        std::printf(", 0x%08x},\n", row.device_flags);
    }
    std::printf("};\n\nconst std::size_t kRowCount = %zu;\n\n}  // namespace mtp\n", rows.size());
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}
