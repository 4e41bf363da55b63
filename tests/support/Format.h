// Texts as the service's log prints them.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace test {

__attribute__((format(printf, 1, 2))) inline std::string Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    va_end(arguments);
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace test
