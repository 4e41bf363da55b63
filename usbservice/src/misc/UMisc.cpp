#include "misc/UMisc.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "misc/ULog.h"

namespace dcm::usb {
namespace {

constexpr std::size_t kAttributePathBytes = 256;  // longer paths are cut
constexpr std::size_t kPieceBytes = 256;          // of an attribute that is a text
constexpr std::size_t kNumberBytes = 10;          // of an attribute that is one number
constexpr std::size_t kHexTextBytes = 256;
constexpr std::size_t kHexTextMost = 254;
constexpr mode_t kFullMode = 0777;

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, Free>;

// Room for so many characters, not filled, and the NUL behind them. calloc would take nothing from the
// thread's own cache of the C library, which costs more than all the rest of a copy.
char* NewText(std::size_t length) {
    char* text = static_cast<char*>(std::malloc(length + 1));
    if (text) text[length] = '\0';
    return text;
}

// Opens an attribute below the root of sysfs and leaves its path for the caller's log line; -1 on failure.
int OpenAttribute(char (&path)[kAttributePathBytes], const char* device, const char* attribute) {
    char* end = path;
    for (const char* part : {UString::kRootSysPath, device, attribute}) {
        const std::size_t length = strnlen(part, static_cast<std::size_t>(path + sizeof path - 1 - end));
        std::memcpy(end, part, length);
        end += length;
    }
    *end = '\0';
    return open(path, O_RDONLY | O_CLOEXEC);
}

// Up to the first newline, NUL or the end; null when nothing stands before it. Read byte by byte, and copied
// in pieces.
char* ReadLine(int file) {
    char* line = nullptr;
    char piece[kPieceBytes];
    std::size_t length = 0;
    char character;
    while (read(file, &character, 1) == 1 && character != '\n' && character != '\0') {
        piece[length++] = character;
        if (length < sizeof piece - 1) continue;
        piece[length] = '\0';
        line = UString::AppendString(line, piece);
        if (!line) return nullptr;  // Out of memory: no value is better than the end of one.
        length = 0;
    }
    piece[length] = '\0';
    return UString::AppendString(line, piece);
}

}  // namespace

const char* UString::kRootSysPath = "/sys";

int UString::ConvertString2Int(const char* str) {
    if (!str) {
        ULOG(LOG_FAILED, "parameter str is null");
        return 0;
    }
    unsigned value = 0;  // unsigned: too many digits wrap
    for (; *str >= '0' && *str <= '9'; ++str)
        value = value * 10 + static_cast<unsigned>(*str - '0');
    return static_cast<int>(value);
}

bool UString::IsParentString(const char* parent, const char* str) {
    return parent && str && std::strncmp(parent, str, std::strlen(parent)) == 0;
}

bool UString::IsSameString(const char* a, const char* b) {
    return a && b && std::strcmp(a, b) == 0;
}

char* UString::CreateString(const char* src) {
    if (!src || !*src) return nullptr;
    const std::size_t length = std::strlen(src);
    char* text = NewText(length);
    if (text) std::memcpy(text, src, length);
    return text;
}

char* UString::CreateString(const char* src, int len) {
    if (!src || len <= 0) return nullptr;
    const std::size_t most = static_cast<std::size_t>(len);
    char* text = NewText(most);
    if (!text) return nullptr;
    const std::size_t length = strnlen(src, most);
    std::memcpy(text, src, length);
    std::memset(text + length, 0, most - length);
    return text;
}

char* UString::AppendString(char* dst, const char* src) {
    if (!src || !*src) return dst;
    if (!dst || !*dst) return CreateString(src);
    const OwnedText old(dst);
    const std::size_t old_length = std::strlen(dst);
    const std::size_t length = std::strlen(src);
    char* text = NewText(old_length + length);
    if (!text) return nullptr;
    std::memcpy(text, dst, old_length);
    std::memcpy(text + old_length, src, length);
    return text;
}

void UString::GetHexNum(int* out, int outSize, const char* in, char delim) {
    if (!in) {
        ULOG(LOG_FAILED, "inbuf is null");
        return;
    }
    if (!out) {
        ULOG(LOG_FAILED, "outbuf is null");
        return;
    }
    if (outSize <= 0) {
        ULOG(LOG_FAILED, "outbuf_size:%d is invalid", outSize);
        return;
    }
    char text[kHexTextBytes] = {};
    std::memcpy(text, in, strnlen(in, kHexTextMost));
    char* cursor = text;
    for (int index = 0; index < outSize && *cursor; ++index) {
        while (*cursor && *cursor == delim)
            ++cursor;
        if (!*cursor) return;
        // Deliberate: what is no number does not move the cursor, so that all remaining entries become 0.
        out[index] = static_cast<int>(std::strtol(cursor, &cursor, 16));
    }
}

char* UString::GetInterfaceString(const char* devPath, const char* attr) {
    if (!devPath || !attr) {
        ULOG(LOG_FAILED, "parameter(%p %p) is null", static_cast<const void*>(devPath),
             static_cast<const void*>(attr));
        return nullptr;
    }
    char path[kAttributePathBytes] = {};
    const int file = OpenAttribute(path, devPath, attr);
    if (file < 0) {
        ULOG(LOG_FAILED, "open fail %s", path);
        return nullptr;
    }
    char* text = ReadLine(file);
    close(file);
    ULOG(LOG_DETAIL, "GetInterfaceString [%s]", text ? text : "(null)");
    return text;
}

int UString::GetInterfaceValue(const char* devPath, const char* attr) {
    if (!devPath || !attr) {
        ULOG(LOG_FAILED, "parameter(%p %p) is null", static_cast<const void*>(devPath),
             static_cast<const void*>(attr));
        return -1;
    }
    char path[kAttributePathBytes] = {};
    const int file = OpenAttribute(path, devPath, attr);
    if (file < 0) {
        ULOG(LOG_FAILED, "open fail %s", path);
        return -1;
    }
    char text[kNumberBytes + 1] = {};
    const ssize_t length = read(file, text, kNumberBytes);
    close(file);
    if (length < 0) {
        ULOG(LOG_FAILED, "read fail %d", static_cast<int>(length));
        return -1;
    }
    int value = 0;
    GetHexNum(&value, 1, text, '\n');
    return value;
}

int UString::GetInterfaceString2Value(const char* devPath, const char* attr) {
    const OwnedText text(GetInterfaceString(devPath, attr));
    return text ? static_cast<int>(std::strtol(text.get(), nullptr, 10)) : 0;
}

int UFile::CreatePath(const char* path) {
    const OwnedText part(UString::CreateString(path));
    if (!part) return 0;
    for (char* slash = std::strchr(part.get() + 1, '/'); slash; slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(part.get(), kFullMode);
        *slash = '/';
    }
    return 0;
}

int UFile::DeletePath(const char* path) {
    const OwnedText part(UString::CreateString(path));
    if (!part) return 0;
    for (char* slash = std::strrchr(part.get(), '/'); slash; slash = std::strrchr(part.get(), '/')) {
        *slash = '\0';
        if (*part) rmdir(part.get());
    }
    return 0;
}

int UFile::ChangeFullMode(const char* path) {
    if (!path) {
        ULOG(LOG_FAILED, "path is null");
        return -1;
    }
    if (chmod(path, kFullMode) < 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "chmod err:%s, %s", path, std::strerror(error));
        return -1;
    }
    ULOG(LOG_INFO, "succeed:%s", path);
    return 0;
}

int USpawn::RunCmd(const char* cmd) {
    if (!cmd) {
        ULOG(LOG_FAILED, "cmd is null");
        errno = EINVAL;
        return -1;
    }
    // posix_spawn takes the arguments as char* and leaves them as they are.
    char* const arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(cmd),
                               nullptr};
    char* const environment[] = {nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environment);
    if (error != 0) {
        ULOG(LOG_FAILED, "failed to posix_spawn:%s", std::strerror(error));
        errno = error;  // for the caller's own line
        return -1;
    }
    int status = 0;
    pid_t ended = -1;
    do
        ended = waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    if (ended < 0) {
        ULOG(LOG_FAILED, "failed to waitpid");
        return -1;
    }
    ULOG(LOG_INFO, "child exited with status %i", status);
    return 0;
}

}  // namespace dcm::usb
