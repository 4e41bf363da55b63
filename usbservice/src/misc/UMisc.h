// Small helpers without state: heap texts and sysfs attributes (UString), directories (UFile), shell commands
// (USpawn). Any thread.
#pragma once

#include <cstdlib>

namespace dcm::usb {

// Texts made here are on the heap, belong to the caller, and go back through DestroyString.
class UString {
public:
    UString() = delete;

    static const char* kRootSysPath;  // "/sys"; writable so that the root can be redirected
    static constexpr const char* kRootDevPath = "/dev/";
    static constexpr const char* kRootMntPath = "/tmp/";
    static constexpr char kStringProductSeparator = '/';

    // The decimal digits at the start of `str`; 0 when it begins with anything else. Overflow wraps.
    static int ConvertString2Int(const char* str);

    // True when `str` begins with the whole of `parent`; an empty `parent` is a prefix of everything.
    static bool IsParentString(const char* parent, const char* str);

    // True when both are there and equal.
    static bool IsSameString(const char* a, const char* b);

    // A copy; null for a null or empty text.
    static char* CreateString(const char* src);

    // A copy of at most `len` characters in `len` + 1 zeroed bytes; null for a null text or len <= 0.
    static char* CreateString(const char* src, int len);

    // `dst` with `src` behind it; `dst` is consumed. Nothing to append: `dst` itself. Nothing to append to: a
    // copy of `src`, and an empty `dst` stays the caller's.
    static char* AppendString(char* dst, const char* src);

    // Frees and sets to null.
    static void DestroyString(char** p) {
        if (!p || !*p) return;
        std::free(*p);
        *p = nullptr;
    }

    // Splits a text into hexadecimal numbers at runs of `delim`; entries behind the last number stay as they
    // are.
    static void GetHexNum(int* out, int outSize, const char* in, char delim);

    // The attribute below kRootSysPath up to its first newline; null when it is missing or empty.
    // `devPath` begins with /devices/, `attr` with '/'.
    static char* GetInterfaceString(const char* devPath, const char* attr);

    // The attribute as a hexadecimal number, whatever the kernel meant; -1 when it cannot be read.
    static int GetInterfaceValue(const char* devPath, const char* attr);

    // The attribute as a decimal number; 0 when it is missing or empty.
    static int GetInterfaceString2Value(const char* devPath, const char* attr);
};

class UFile {
public:
    UFile() = delete;

    // Makes every directory up to the last '/' of `path`, outermost first, mode 0777. Always 0.
    static int CreatePath(const char* path);

    // Removes every empty directory up to the last '/' of `path`, innermost first, the first one below /
    // included. Always 0.
    static int DeletePath(const char* path);

    // 0, or -1 when `path` is null or cannot be changed.
    static int ChangeFullMode(const char* path);
};

class USpawn {
public:
    USpawn() = delete;

    // Runs `cmd` with /bin/sh and waits for it. 0 when the shell ran, whatever the command's own result; else
    // -1, and errno says why.
    static int RunCmd(const char* cmd);
};

}  // namespace dcm::usb
