#include "shm/Complaint.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace shm {

void Complain(const char* function, const char* format, ...) {
    const int error = errno;
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "[%s][%s]%s\n", kTag, function, text);
    errno = error;
}

void ComplainOfCall(const char* function, const char* call, const char* what, int error) {
    Complain(function, "%s %s: %s", call, what, std::strerror(error));
}

}  // namespace shm
