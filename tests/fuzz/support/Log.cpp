// A trace log that formats each line, so that a text without an end is found, and throws it away.
#include <cstdarg>
#include <cstdio>

#include "platform/trace.h"

int ka_log_threshold = 0;

extern "C" void ka_log_print(const char*, const char*, int, int, int, int, const char* format, ...) {
    char line[8192];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
}
