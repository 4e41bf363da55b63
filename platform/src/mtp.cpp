#include "platform/mtp.h"

#include <algorithm>
#include <tuple>

#include "Table.h"

extern "C" int get_vendor_product_flag(unsigned short vendor_id, unsigned short product_id,
                                       const char** vendor_name, const char** product_name,
                                       unsigned int* flags) {
    const auto before = [](const mtp::Row& row, const std::tuple<unsigned short, unsigned short>& ids) {
        return std::make_tuple(row.vendor_id, row.product_id) < ids;
    };
    const mtp::Row* const end = mtp::kRows + mtp::kRowCount;
    const mtp::Row* row = std::lower_bound(mtp::kRows, end, std::make_tuple(vendor_id, product_id), before);
    if (row == end || row->vendor_id != vendor_id || row->product_id != product_id) return -1;
    if (vendor_name) *vendor_name = mtp::kTexts + row->vendor;
    if (product_name) *product_name = mtp::kTexts + row->product;
    if (flags) *flags = row->flags;
    return 0;
}
