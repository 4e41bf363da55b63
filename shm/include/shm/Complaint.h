// The store's diagnostics: lines on standard error, since the store's users log each in their own way.
#pragma once

namespace shm {

inline constexpr const char* kTag = "SHM-IF";

// Any thread. Prints "[SHM-IF][function]text" and a newline. Keeps errno.
void Complain(const char* function, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The same for a system call that failed on something: "call what: error".
void ComplainOfCall(const char* function, const char* call, const char* what, int error);

}  // namespace shm
