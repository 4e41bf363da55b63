// The head unit's table of known MTP devices.
#pragma once

extern "C" {

// Any thread. Returns 0 when the device is known to speak MTP, and then sets the vendor's and the product's
// name (static texts, never null) and the table's flags for it. Any other result: not known, nothing is set.
// A null out pointer is left out.
int get_vendor_product_flag(unsigned short vendor_id, unsigned short product_id, const char** vendor_name,
                            const char** product_name, unsigned int* flags);
}
