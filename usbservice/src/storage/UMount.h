// Mounts a volume on a directory with the options of its filesystem, and takes it off again.
#pragma once

#include "misc/USingleton.h"

namespace dcm::usb {

// Holds no state. Event frame's thread; the callers keep one directory per port and slot.
class UMount : public USingleton<UMount> {
public:
    static constexpr int kUmountOptionDetach = 2;  // MNT_DETACH

    UMount();
    ~UMount() override;

    // Makes the directory and mounts the device file, read-only when it does not go otherwise. A null type
    // counts as vfat. 0, or the errno of the last attempt; then the directory is gone again.
    int Mount(const char* special_file, const char* dir, const char* fstype, unsigned long flags);

    // Tries for 2.4 seconds, then detaches, and removes the directory. 0; -1 without a path or when the
    // process cannot leave its working directory.
    int UnMount(char* dir);

    // Takes the volume out of the namespace although somebody uses it. umount2's result; -1 without a path.
    int UnMountForcibly(char* dir);

private:
    int ReleaseAndRemove(char* dir);
};

}  // namespace dcm::usb
