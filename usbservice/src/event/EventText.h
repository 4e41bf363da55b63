// What the two kinds of event records do alike with the texts of an event. Event frame's thread.
#pragma once

#include <cstddef>
#include <cstring>

#include "board/UPort.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {

// Place of the first equal text in one of UEventData's tables; -1 when there is none. `text` is not null.
// Each event of the machine is looked up in the longest of them: most entries differ in their first letter.
template <std::size_t count>
int IndexOf(const char* const (&texts)[count], const char* text) {
    for (std::size_t index = 0; index < count; ++index)
        if (*texts[index] == *text && UString::IsSameString(texts[index], text))
            return static_cast<int>(index);
    return -1;
}

// The path without the board's host controller in front; for log lines.
inline const char* WithoutController(const char* devpath) {
    for (const char* controller : {UPort::kBoardUsb1DevPath, UPort::kBoardUsb2DevPath})
        if (UString::IsParentString(controller, devpath)) return devpath + std::strlen(controller);
    return devpath;
}

// "5ac/12a8/1001": vendor, product and release in hexadecimal. What is missing is 0.
inline void ReadProduct(const char* text, unsigned short* vendor, unsigned short* product) {
    int numbers[3] = {};
    UString::GetHexNum(numbers, 3, text, UString::kStringProductSeparator);
    ULOG(LOG_DETAIL, "product %x/%x/%x", static_cast<unsigned>(numbers[0]), static_cast<unsigned>(numbers[1]),
         static_cast<unsigned>(numbers[2]));
    if (vendor) *vendor = static_cast<unsigned short>(numbers[0]);
    if (product) *product = static_cast<unsigned short>(numbers[1]);
}

}  // namespace dcm::usb
