#include "storage/UBlkid.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {
namespace {

constexpr std::size_t kChunkBytes = 1024;  // the last one ends the text

// The tool's command line, complete before the fork: between fork and execv nothing may allocate.
class Arguments {
public:
    explicit Arguments(const char* devname)
        : m_texts{UString::CreateString(UBlkID::kRootNewBlkidPath), UString::CreateString("-d"),
                  UString::CreateString(devname), nullptr} {}
    ~Arguments() {
        for (char*& text : m_texts)
            UString::DestroyString(&text);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    bool AreComplete() const { return m_texts[0] && m_texts[1] && m_texts[2]; }
    char* const* Get() const { return m_texts; }

private:
    char* m_texts[4];
};

void CloseEnd(int& fd) {
    if (fd < 0) return;
    close(fd);
    fd = -1;
}

// The child: only what is safe after a fork of a process with threads; the log is.
[[noreturn]] void RunTool(int (&ends)[2], char* const* arguments) {
    CloseEnd(ends[UBlkID::kReadPipe]);
    if (ends[UBlkID::kWritePipe] >= 0) {
        if (dup2(ends[UBlkID::kWritePipe], STDOUT_FILENO) < 0) ULOG(LOG_FAILED, "dup2 STDOUT_FILENO error");
        CloseEnd(ends[UBlkID::kWritePipe]);
    } else {
        ULOG(LOG_FAILED, "write pipe is failed");
    }
    const int result = execv(UBlkID::kRootNewBlkidPath, arguments);
    ULOG(LOG_FAILED, "result of blkid:%d", result);
    _exit(1);
}

void WaitFor(pid_t child) {
    pid_t ended = -1;
    do
        ended = waitpid(child, nullptr, 0);
    while (ended < 0 && errno == EINTR);
    if (ended >= 0) return;
    const int error = errno;
    ULOG(LOG_FAILED, "waitpid failed %s", std::strerror(error));
}

// Other than UString::CreateString, a length of 0 gives an empty text: the tool named an empty value.
char* CopyValue(const char* start, std::size_t length) {
    char* value = static_cast<char*>(std::calloc(length + 1, 1));
    if (value) std::memcpy(value, start, length);
    return value;
}

}  // namespace

// The blank before TYPE: neither PTTYPE nor SEC_TYPE is a filesystem. Deliberate: UUID and LABEL are found in
// PTUUID, PARTUUID and PARTLABEL as well; whichever comes first counts.
const char* const UBlkID::kStringBlkid[3] = {"LABEL=\"", "UUID=\"", " TYPE=\""};
const char* const UBlkID::kRootNewBlkidPath = "/usr/bin/blkid2";
const char* const UBlkID::kRootBlkidPath = "/sbin/blkid";

UBlkID::~UBlkID() {
    UString::DestroyString(&m_label);
    UString::DestroyString(&m_uuid);
    UString::DestroyString(&m_type);
}

void UBlkID::UpdateVolid(const char* devname) {
    ULOG(LOG_TRACE, "devpath:%s", devname ? devname : "(null)");
    const Arguments arguments(devname);
    if (!arguments.AreComplete()) {  // without a device the tool would list every device of the unit
        ULOG(LOG_FAILED, "no arguments for blkid");
        return;
    }
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) < 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "pipe failed %s", std::strerror(error));
        return;
    }
    const pid_t child = fork();
    if (child == 0) RunTool(ends, arguments.Get());
    if (child < 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "fork failed %s", std::strerror(error));
        CloseEnd(ends[kReadPipe]);
        CloseEnd(ends[kWritePipe]);
        return;
    }
    CloseEnd(ends[kWritePipe]);
    ReadPipe(ends[kReadPipe]);
    CloseEnd(ends[kReadPipe]);
    WaitFor(child);
}

void UBlkID::ReadPipe(int& fd) {
    if (fd >= FD_SETSIZE) {  // a set has no place for it: FD_SET would write behind the set
        ULOG(LOG_FAILED, "Not exec select");
        CloseEnd(fd);
        return;
    }
    while (fd >= 1) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        if (select(fd + 1, &readable, nullptr, nullptr, nullptr) < 0) {
            const int error = errno;
            ULOG(LOG_FAILED, "Not exec select");
            if (error != EINTR) CloseEnd(fd);  // it would fail for ever
            continue;
        }
        if (!FD_ISSET(fd, &readable)) continue;
        char chunk[kChunkBytes] = {};
        const ssize_t length = read(fd, chunk, sizeof chunk - 1);
        if (length <= 0) {
            CloseEnd(fd);
            return;
        }
        chunk[length] = '\0';
        ParseBuf(chunk);
    }
}

void UBlkID::ParseBuf(char* buf) {
    if (!buf) {
        ULOG(LOG_FAILED, "inbuf is null");
        return;
    }
    char** const values[] = {&m_label, &m_uuid, &m_type};
    for (std::size_t index = 0; index < 3; ++index) {
        const char* const position = std::strstr(buf, kStringBlkid[index]);
        ULOG(LOG_DETAIL, "pos:[%s]", position ? position : "(null)");
        if (!position) continue;
        const char* const start = position + std::strlen(kStringBlkid[index]);
        const std::size_t length =
            std::strcspn(start, "\"");  // without a quote: all that is left of the chunk
        ULOG(LOG_INFO, "start:[%s] len:%d", start, static_cast<int>(length));
        UString::DestroyString(values[index]);
        *values[index] = CopyValue(start, length);
    }
}

}  // namespace dcm::usb
