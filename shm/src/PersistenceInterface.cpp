#include "shm/PersistenceInterface.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Descriptor.h"
#include "shm/Complaint.h"
#include "shm/Layout.h"

namespace shm {
namespace {

constexpr const char* kFolders[] = {"/data", "/data/sharedmemory"};  // outermost first
constexpr mode_t kFolderMode = 0775;
constexpr mode_t kFileMode = 0777;  // less the umask

// The length, or the record's size when the length exceeds it.
unsigned int is_len_valid(const MemoryData& row, unsigned int len) {
    if (len <= row.size) return len;
    std::fprintf(stderr, "[%s][%s]%s size overflow # len :%d # max :%d\n", kTag, __func__, row.name,
                 static_cast<int>(len), static_cast<int>(row.size));
    return row.size;
}

unsigned int LengthAt(const char* data) {
    RecordHead head;
    std::memcpy(&head, data, sizeof head);
    return head.length;
}

bool MakeFolders() {
    for (const char* folder : kFolders) {
        if (mkdir(folder, kFolderMode) == 0 || errno == EEXIST) continue;
        ComplainOfCall(__func__, "mkdir", folder, errno);
        return false;
    }
    return true;
}

// A descriptor or -1; a file that is missing gets no line.
int OpenFile(const char* path, int flags) {
    if (!MakeFolders()) return -1;
    const int fd = open(path, flags | O_SYNC | O_CLOEXEC, kFileMode);
    if (fd < 0 && errno != ENOENT) ComplainOfCall(__func__, "open", path, errno);
    return fd;
}

// The number of bytes read, up to the file's end, or -1 and errno.
ssize_t ReadFile(int fd, char* buffer, std::size_t bytes) {
    std::size_t done = 0;
    while (done < bytes) {
        const ssize_t got = read(fd, buffer + done, bytes - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

// False and errno when not all was written.
bool WriteFile(int fd, const char* data, std::size_t bytes) {
    std::size_t done = 0;
    while (done < bytes) {
        const ssize_t put = write(fd, data + done, bytes - done);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

}  // namespace

const char* TakeRecord(const MemoryData& row, const char* file, std::size_t bytes, unsigned int* length) {
    if (bytes < sizeof(RecordHead)) return nullptr;
    *length = is_len_valid(row, LengthAt(file));
    return *length <= bytes - sizeof(RecordHead) ? file + sizeof(RecordHead) : nullptr;
}

PersistenceInterface::PersistenceInterface(const MemoryData& row)
    : Memory<char>(row.name, sizeof(RecordHead) + row.size), m_row(row) {}

int PersistenceInterface::Write(const char* data, unsigned int len, int mode) {
    if (!data) {
        Complain(__func__, "%s: data is null", m_name);
        return -1;
    }
    Access access(*this);
    if (!access.Granted() || access.Map(SEGMENT_CREATE) != SEGMENT_MAPPED) return -1;
    const RecordHead head{is_len_valid(m_row, len)};
    std::memcpy(access.Data() + sizeof head, data, head.length);
    std::memcpy(access.Data(), &head, sizeof head);
    if (mode == WRITE_THROUGH && m_row.flag == RECORD_PERSISTENT && write_emmc(data, head.length) < 0)
        return -1;
    return static_cast<int>(head.length);
}

int PersistenceInterface::Read(char* buffer) {
    if (!buffer) {
        Complain(__func__, "%s: buffer is null", m_name);
        return -1;
    }
    Access access(*this);
    return access.Granted() ? Load(access, buffer) : -1;
}

int PersistenceInterface::Load(Access& access, char* buffer) {
    switch (access.Map(SEGMENT_EXISTING)) {
        case SEGMENT_FAILED:
            return -1;
        case SEGMENT_ABSENT:
            return m_row.flag == RECORD_PERSISTENT ? read_emmc(buffer) : -1;
        case SEGMENT_MAPPED:
            break;
    }
    const unsigned int length = is_len_valid(m_row, LengthAt(access.Data()));
    std::memcpy(buffer, access.Data() + sizeof(RecordHead), length);
    return static_cast<int>(length);
}

int PersistenceInterface::Sync() {
    if (m_row.flag != RECORD_PERSISTENT) {
        Complain(__func__, "%s is kept in memory only", m_name);
        return -1;
    }
    std::vector<char> data(m_row.size);
    Access access(*this);
    if (!access.Granted()) return -1;
    const int length = Load(access, data.data());
    if (length < 0) return -1;
    if (write_emmc(data.data(), static_cast<unsigned int>(length)) == 0) return 0;
    Complain("sync_data", "write_emmc fail");
    return -1;
}

int PersistenceInterface::read_emmc(char* buffer) {
    const Descriptor file(OpenFile(m_row.path, O_RDONLY));
    if (file.Get() < 0) return -1;
    std::vector<char> bytes(sizeof(RecordHead) + m_row.size);
    const ssize_t got = ReadFile(file.Get(), bytes.data(), bytes.size());
    if (got < 0) {
        ComplainOfCall(__func__, "read", m_row.path, errno);
        return -1;
    }
    unsigned int length = 0;
    const char* data = TakeRecord(m_row, bytes.data(), static_cast<std::size_t>(got), &length);
    if (!data) {
        Complain(__func__, "%s is cut short: %zd bytes", m_row.path, got);
        return -1;
    }
    std::memcpy(buffer, data, length);
    return static_cast<int>(length);
}

// Written in place by one call, length and data together, and never emptied before: after a power cut the
// file holds the old record, the new one or, of records that span blocks of the flash, a mixture of both that
// still has a length and all the data that it promises.
int PersistenceInterface::write_emmc(const char* data, unsigned int len) {
    const RecordHead head{len};
    std::vector<char> bytes(sizeof head + len);
    std::memcpy(bytes.data(), &head, sizeof head);
    if (len > 0) std::memcpy(bytes.data() + sizeof head, data, len);
    const Descriptor file(OpenFile(m_row.path, O_WRONLY | O_CREAT));
    if (file.Get() < 0) return -1;
    if (!WriteFile(file.Get(), bytes.data(), bytes.size())) {
        ComplainOfCall(__func__, "write", m_row.path, errno);
        return -1;
    }
    return 0;
}

}  // namespace shm
