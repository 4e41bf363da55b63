#include "unit/storage/FakeKernel.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace test {
namespace {

std::mutex kernel_mutex;

// Paths with and without the last '/' are the same directory.
std::string Trim(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

bool IsOurs(const char* path) {
    const std::string text = Trim(path);
    return text == "/tmp" || text.starts_with("/tmp/USB") || text.starts_with("/tmp/CD");
}

int Fail(int error) {
    errno = error;
    return -1;
}

int RefusalOf(const std::string& device, unsigned long flags) {
    const FakeKernel& kernel = Kernel();
    const auto writable = kernel.refused_writable.find(device);
    if (writable != kernel.refused_writable.end() && !(flags & MS_RDONLY)) return writable->second;
    const auto any = kernel.refused.find(device);
    return any != kernel.refused.end() ? any->second : 0;
}

bool TakeFromTop(const std::string& directory) {
    auto& mounts = Kernel().mounts;
    const auto top = std::find_if(mounts.rbegin(), mounts.rend(),
                                  [&](const auto& entry) { return entry.first == directory; });
    if (top == mounts.rend()) return false;
    mounts.erase(std::next(top).base());
    return true;
}

}  // namespace

bool FakeKernel::IsMounted(const std::string& device) const {
    return std::any_of(mounts.begin(), mounts.end(),
                       [&](const auto& entry) { return entry.second == device; });
}

bool FakeKernel::IsMountPoint(const std::string& directory) const {
    return std::any_of(mounts.begin(), mounts.end(),
                       [&](const auto& entry) { return entry.first == Trim(directory); });
}

FakeKernel& Kernel() {
    static FakeKernel kernel;
    return kernel;
}

void ResetKernel() {
    Kernel() = {};
    Kernel().directories = {"/tmp"};
}

}  // namespace test

using test::Fail;
using test::IsOurs;
using test::Kernel;
using test::kernel_mutex;
using test::Trim;

extern "C" {

int __real_mkdir(const char* path, mode_t mode);
int __real_rmdir(const char* path);
int __real_chmod(const char* path, mode_t mode);

int __wrap_mkdir(const char* path, mode_t mode) {
    if (!IsOurs(path)) return __real_mkdir(path, mode);
    const std::lock_guard lock(kernel_mutex);
    const std::string directory = Trim(path);
    if (!Kernel().directories.insert(directory).second) return Fail(EEXIST);
    Kernel().made.push_back(directory);
    return 0;
}

// As the kernel's own: neither a mount point nor a directory with something in it goes. /tmp is a mount
// point.
int __wrap_rmdir(const char* path) {
    if (!IsOurs(path)) return __real_rmdir(path);
    const std::lock_guard lock(kernel_mutex);
    const std::string directory = Trim(path);
    if (directory == "/tmp" || Kernel().IsMountPoint(directory)) return Fail(EBUSY);
    for (const std::string& other : Kernel().directories)
        if (other.starts_with(directory + "/")) return Fail(ENOTEMPTY);
    return Kernel().directories.erase(directory) > 0 ? 0 : Fail(ENOENT);
}

int __wrap_chmod(const char* path, mode_t mode) {
    if (!IsOurs(path)) return __real_chmod(path, mode);
    const std::lock_guard lock(kernel_mutex);
    const std::string directory = Trim(path);
    if (!Kernel().directories.contains(directory)) return Fail(ENOENT);
    Kernel().modes[directory] = mode;
    return 0;
}

int __wrap_mount(const char* device, const char* directory, const char* type, unsigned long flags,
                 const void* options) {
    const std::lock_guard lock(kernel_mutex);
    const char* const text = options ? static_cast<const char*>(options) : "-";
    Kernel().calls.push_back(std::string("mount ") + (device ? device : "(null)") + " " +
                             (directory ? directory : "(null)") + " " + type + " " + std::to_string(flags) +
                             " " + text);
    if (!device || !directory) return Fail(EFAULT);
    if (!Kernel().directories.contains(Trim(directory))) return Fail(ENOENT);
    if (const int error = test::RefusalOf(device, flags)) return Fail(error);
    Kernel().mounts.emplace_back(Trim(directory), device);
    return 0;
}

int __wrap_umount(const char* directory) {
    const std::lock_guard lock(kernel_mutex);
    Kernel().calls.push_back(std::string("umount ") + directory);
    const std::string place = Trim(directory);
    if (!Kernel().IsMountPoint(place)) return Fail(EINVAL);
    if (Kernel().busy.contains(place) && Kernel().busy_attempts != 0) {
        if (Kernel().busy_attempts > 0) --Kernel().busy_attempts;
        return Fail(EBUSY);
    }
    test::TakeFromTop(place);
    return 0;
}

int __wrap_umount2(const char* directory, int flags) {
    const std::lock_guard lock(kernel_mutex);
    Kernel().calls.push_back(std::string("umount2 ") + directory + " " + std::to_string(flags));
    return test::TakeFromTop(Trim(directory)) ? 0 : Fail(EINVAL);
}

int __wrap_chdir(const char* path) {
    const std::lock_guard lock(kernel_mutex);
    Kernel().calls.push_back(std::string("chdir ") + path);
    return Kernel().chdir_error ? Fail(Kernel().chdir_error) : 0;
}

int __wrap_usleep(useconds_t time) {
    const std::lock_guard lock(kernel_mutex);
    Kernel().pauses.push_back(time);
    return 0;
}
}
