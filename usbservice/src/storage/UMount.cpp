#include "storage/UMount.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {
namespace {

constexpr int kUmountAttempts = 8;
constexpr useconds_t kUmountPause = 300000;  // us; 2.4 s in all

constexpr const char* kFatOptions = "umask=000,shortname=winnt,utf8";

struct Filesystem {
    const char* type;     // as the volume says
    const char* kernel;   // as the unit's kernel calls its driver
    const char* options;  // null: none
};
constexpr Filesystem kFilesystems[] = {
    {"ext2", "ext2", nullptr},        {"ext3", "ext3", nullptr},
    {"ext4", "ext4", nullptr},        {"ntfs", "tntfs", "umask=000,utf8"},
    {"hfsplus", "thfsplus", nullptr}, {"exfat", "texfat", "umask=000,hidden=ignore,utf8"},
};

Filesystem Choose(const char* type) {
    if (!type) return {type, "vfat", kFatOptions};
    for (const Filesystem& known : kFilesystems)
        if (UString::IsSameString(known.type, type)) return known;
    // Deliberate: a plain prefix test, which "fat", "fa", "f" and the empty type pass.
    if (UString::IsParentString(type, "fat")) return {type, "tfat", kFatOptions};
    return {type, type, kFatOptions};
}

// 0 or the errno.
int TryMount(const char* special_file, const char* dir, const Filesystem& filesystem, unsigned long flags) {
    if (mount(special_file, dir, filesystem.kernel, flags, filesystem.options) == 0) return 0;
    const int error = errno;
    ULOG(LOG_FAILED, "error in mount %d %s", error, std::strerror(error));
    return error;
}

bool TryUmount(const char* dir) {
    for (int attempt = 0; attempt < kUmountAttempts; ++attempt) {
        if (umount(dir) == 0) return true;
        usleep(kUmountPause);
    }
    return false;
}

}  // namespace

UMount::UMount() {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
}

UMount::~UMount() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
}

int UMount::Mount(const char* special_file, const char* dir, const char* fstype, unsigned long flags) {
    if (UFile::CreatePath(dir) != 0)
        ULOG(LOG_FAILED, "can't create dir");
    else
        UFile::ChangeFullMode(dir);

    const Filesystem filesystem = Choose(fstype);
    if (fstype) ULOG(LOG_INFO, "ftype:%s devpath:%s", fstype, special_file ? special_file : "(null)");

    if (TryMount(special_file, dir, filesystem, flags) == 0) return 0;
    const int error = TryMount(special_file, dir, filesystem, MS_RDONLY);
    if (error == 0) return 0;
    if (UFile::DeletePath(dir) != 0) ULOG(LOG_FAILED, "can't delete dir");
    return error;
}

int UMount::UnMount(char* dir) {
    if (chdir("/") != 0) {  // else the service itself could keep the volume busy
        const int error = errno;
        ULOG(LOG_FAILED, "fail to find umount path");
        errno = error;
        return -1;
    }
    ULOG(LOG_INFO, "umount processing %s", dir ? dir : "(null)");
    const int result = dir ? ReleaseAndRemove(dir) : -1;
    ULOG(LOG_DETAIL, "umount %d", result);
    return result;
}

int UMount::ReleaseAndRemove(char* dir) {
    if (TryUmount(dir))
        ULOG(LOG_INFO, "um pass p[%s]", dir);
    else
        UnMountForcibly(dir);
    const int result = UFile::DeletePath(dir);
    if (result != 0) ULOG(LOG_REFUSED, "can't delete dir%d", result);
    return result;
}

int UMount::UnMountForcibly(char* dir) {
    ULOG(LOG_INFO, "UnMountForcibly");
    if (!dir) return -1;
    const int result = umount2(dir, kUmountOptionDetach);
    // The volume lives on, without a place, as long as somebody holds a file of it open.
    ULOG(result == 0 ? LOG_REFUSED : LOG_FAILED, "ghost %s mount alive ret: %d", dir, result);
    return result;
}

}  // namespace dcm::usb
