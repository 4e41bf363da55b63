#include "FakeSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <new>

#include "shm/Layout.h"
#include "shm/LowSend.h"

extern "C" {
int __real_chmod(const char* path, mode_t mode);
int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_fchmod(int fd, mode_t mode);
int __real_fstat(int fd, struct stat* status);
int __real_ftruncate(int fd, off_t length);
int __real_mkdir(const char* path, mode_t mode);
void* __real_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset);
int __real_munmap(void* address, size_t length);
int __real_open(const char* path, int flags, ...);
int __real_posix_fallocate(int fd, off_t offset, off_t length);
ssize_t __real_read(int fd, void* buffer, size_t bytes);
sem_t* __real_sem_open(const char* name, int flags, ...);
int __real_sem_post(sem_t* semaphore);
int __real_sem_timedwait(sem_t* semaphore, const timespec* deadline);
int __real_sem_unlink(const char* name);
int __real_shm_open(const char* name, int flags, mode_t mode);
int __real_shm_unlink(const char* name);
int __real_stat(const char* path, struct stat* status);
ssize_t __real_write(int fd, const void* buffer, size_t bytes);
void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
}

namespace test {
namespace {

std::recursive_mutex s_mutex;

struct Names {
    std::string prefix = "usbtest." + std::to_string(getpid()) + ".";
    std::string data;  // the folder that stands for "/data"
    std::string root;  // above it
    std::map<sem_t*, std::string> semaphores;
    std::vector<sem_t*> others;  // opened by the test
};

Names& TheNames() {
    static Names* names = new Names;
    return *names;
}

std::string Prefixed(const char* name) {
    return TheNames().prefix + name;
}

// A semaphore's file as the store names it, where it really is.
std::string Moved(const std::string& path) {
    const std::string semaphores = "/dev/shm/sem.";
    if (!path.starts_with(semaphores)) return path;
    return semaphores + Prefixed(path.substr(semaphores.size()).c_str());
}

std::optional<Bytes> ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteWhole(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.good()) << path;
}

// The error that this call is to give; 0: it does its work.
int ErrorOf(const std::string& call, const std::string& what = "") {
    std::lock_guard lock(s_mutex);
    for (System::Failure& failure : TheSystem().failures)
        if ((failure.call == call || failure.call == call + " " + what) && failure.times-- > 0)
            return failure.error;
    return 0;
}

bool Fails(const std::string& call, const std::string& what = "") {
    const int error = ErrorOf(call, what);
    if (error != 0) errno = error;
    return error != 0;
}

void RemoveOwnFiles() {
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        if (name.starts_with(TheNames().prefix) || name.starts_with("sem." + TheNames().prefix))
            std::filesystem::remove(entry.path());
    }
}

}  // namespace

System& TheSystem() {
    static System* system = new System;
    return *system;
}

std::string SegmentPath(const std::string& name) {
    return "/dev/shm/" + TheNames().prefix + name;
}

std::string SemaphorePath(const std::string& name) {
    return "/dev/shm/sem." + TheNames().prefix + name;
}

std::string DataPath(const std::string& path) {
    EXPECT_TRUE(path.starts_with("/data")) << path;
    return TheNames().data + path.substr(std::strlen("/data"));
}

std::optional<Bytes> SegmentBytes(const std::string& name) {
    return ReadWhole(SegmentPath(name));
}

void PutSegment(const std::string& name, const Bytes& bytes) {
    WriteWhole(SegmentPath(name), bytes);
}

std::optional<Bytes> FileBytes(const std::string& path) {
    return ReadWhole(DataPath(path));
}

void PutFile(const std::string& path, const Bytes& bytes) {
    std::filesystem::create_directories(std::filesystem::path(DataPath(path)).parent_path());
    WriteWhole(DataPath(path), bytes);
}

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(__real_stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

sem_t* SemaphoreOfAnother(const std::string& name) {
    sem_t* semaphore = __real_sem_open(Prefixed(name.c_str()).c_str(), O_CREAT, 0777, 1);
    EXPECT_NE(semaphore, SEM_FAILED);
    TheNames().others.push_back(semaphore);
    return semaphore;
}

int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

SystemTest::SystemTest() {
    shm::low_send(ssmID::shm_usb_cert, 0);  // opens the driver, which stays open
    TheSystem() = System{};
    char root[] = "/tmp/usbtest.shm.XXXXXX";
    EXPECT_NE(mkdtemp(root), nullptr);
    TheNames().root = root;
    TheNames().data = std::string(root) + "/data";
    RemoveOwnFiles();
    m_descriptors = OpenDescriptors();
    ::testing::internal::CaptureStderr();
}

SystemTest::~SystemTest() {
    ::testing::internal::GetCapturedStderr();
    for (sem_t* semaphore : TheNames().others)
        sem_close(semaphore);
    TheNames().others.clear();
    RemoveOwnFiles();
    std::filesystem::remove_all(TheNames().root);
    EXPECT_EQ(TheSystem().inherited, 0) << "a descriptor is not close-on-exec";
    EXPECT_EQ(TheSystem().mapped, 0) << "a segment is still mapped";
    EXPECT_EQ(OpenDescriptors(), m_descriptors) << "a descriptor is still open";
    TheSystem() = System{};
}

std::string SystemTest::Complaints() {
    std::string text = ::testing::internal::GetCapturedStderr();
    ::testing::internal::CaptureStderr();
    return text;
}

}  // namespace test

using namespace test;

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const std::string name = path;
    if (name == "/dev/css") {
        std::lock_guard lock(s_mutex);
        TheSystem().opens.push_back({name, flags, mode});
        if (TheSystem().no_driver) {
            errno = ENOENT;
            return -1;
        }
        return __real_open("/dev/null", flags);
    }
    if (!name.starts_with("/data")) return __real_open(path, flags, mode);
    TheSystem().opens.push_back({name, flags, mode});
    return Fails("open", name) ? -1 : __real_open(DataPath(name).c_str(), flags, mode);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    if (!std::string(path).starts_with("/data")) return __real_mkdir(path, mode);
    if (Fails("mkdir", path)) return -1;
    TheSystem().folders.push_back(path);
    return __real_mkdir(DataPath(path).c_str(), mode);
}

int __wrap_chmod(const char* path, mode_t mode) {
    return Fails("chmod") ? -1 : __real_chmod(Moved(path).c_str(), mode);
}

int __wrap_stat(const char* path, struct stat* status) {
    return Fails("stat") ? -1 : __real_stat(Moved(path).c_str(), status);
}

int __wrap_shm_open(const char* name, int flags, mode_t mode) {
    if (TheSystem().on_shm_open) TheSystem().on_shm_open();
    {
        std::lock_guard lock(s_mutex);
        TheSystem().opens.push_back({name, flags, mode});
    }
    return Fails("shm_open", name) ? -1 : __real_shm_open(Prefixed(name).c_str(), flags, mode);
}

int __wrap_shm_unlink(const char* name) {
    return __real_shm_unlink(Prefixed(name).c_str());
}

int __wrap_fstat(int fd, struct stat* status) {
    return Fails("fstat") ? -1 : __real_fstat(fd, status);
}

int __wrap_ftruncate(int fd, off_t length) {
    return Fails("ftruncate") ? -1 : __real_ftruncate(fd, length);
}

int __wrap_fchmod(int fd, mode_t mode) {
    return Fails("fchmod") ? -1 : __real_fchmod(fd, mode);
}

int __wrap_posix_fallocate(int fd, off_t offset, off_t length) {
    const int error = ErrorOf("posix_fallocate");
    return error != 0 ? error : __real_posix_fallocate(fd, offset, length);
}

void* __wrap_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
    if (fd < 0) return __real_mmap(address, length, protection, flags, fd, offset);
    if (Fails("mmap")) return MAP_FAILED;
    void* mapped = __real_mmap(address, length, protection, flags, fd, offset);
    std::lock_guard lock(s_mutex);
    if (mapped == MAP_FAILED) return mapped;
    ++TheSystem().mapped;
    if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) ++TheSystem().inherited;
    return mapped;
}

int __wrap_munmap(void* address, size_t length) {
    {
        std::lock_guard lock(s_mutex);
        --TheSystem().mapped;
    }
    return __real_munmap(address, length);
}

sem_t* __wrap_sem_open(const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    const unsigned value = flags & O_CREAT ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (Fails("sem_open", name)) return SEM_FAILED;
    sem_t* semaphore = __real_sem_open(Prefixed(name).c_str(), flags, mode, value);
    std::lock_guard lock(s_mutex);
    if (semaphore != SEM_FAILED) TheNames().semaphores[semaphore] = name;
    return semaphore;
}

int __wrap_sem_unlink(const char* name) {
    return __real_sem_unlink(Prefixed(name).c_str());
}

int __wrap_sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    std::string name;
    {
        std::lock_guard lock(s_mutex);
        TheSystem().deadlines.push_back(*deadline);
        name = TheNames().semaphores[semaphore];
    }
    if (TheSystem().on_wait) TheSystem().on_wait(name.c_str());
    return Fails("sem_timedwait", name) ? -1 : __real_sem_timedwait(semaphore, deadline);
}

int __wrap_sem_post(sem_t* semaphore) {
    return Fails("sem_post") ? -1 : __real_sem_post(semaphore);
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    if (clock == CLOCK_REALTIME && Fails("clock_gettime")) return -1;
    const int result = __real_clock_gettime(clock, time);
    if (clock == CLOCK_REALTIME && TheSystem().time_is_past) time->tv_sec -= 15;
    return result;
}

ssize_t __wrap_read(int fd, void* buffer, size_t bytes) {
    return Fails("read") ? -1 : __real_read(fd, buffer, bytes);
}

ssize_t __wrap_write(int fd, const void* buffer, size_t bytes) {
    if (Fails("write")) return -1;
    const std::size_t most = TheSystem().most_per_write;
    return __real_write(fd, buffer, most != 0 && bytes > most ? most : bytes);
}

int __wrap_ioctl(int, unsigned long command, void* argument) {
    if (Fails("ioctl")) return -1;
    shm::CssRequest request;
    std::memcpy(&request, argument, sizeof request);
    CssCall call{command, {}, Bytes(request.buffer, request.buffer + request.size)};
    request.buffer = nullptr;
    call.request.resize(sizeof request);
    std::memcpy(call.request.data(), &request, sizeof request);
    std::lock_guard lock(s_mutex);
    TheSystem().css.push_back(call);
    return 0;
}

void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    return Fails("new") ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
}
