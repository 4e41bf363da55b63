// A kernel with the unit's mount table below /tmp/USB and /tmp/CD, made of nothing: the calls of the program
// go here (linked with --wrap), no directory and no mount of the machine is touched. Any thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct FakeKernel {
    // What the test decides.
    std::map<std::string, int> refused;           // device -> errno of each mount of it
    std::map<std::string, int> refused_writable;  // device -> errno of a mount that is not read-only
    std::set<std::string> busy;                   // directories that umount finds in use
    int busy_attempts = -1;                       // so many umounts fail of these; negative: all
    int chdir_error = 0;

    // What happened. A mount is "mount DEVICE DIRECTORY TYPE FLAGS OPTIONS"; "-" for no options.
    std::vector<std::string> calls;       // mount, umount, umount2, chdir
    std::vector<unsigned> pauses;         // us
    std::map<std::string, mode_t> modes;  // directories that were chmod-ed
    std::vector<std::string> made;        // every mkdir that did something

    // What is there now.
    std::vector<std::pair<std::string, std::string>> mounts;  // directory, device; the last is on top
    std::set<std::string> directories;

    bool IsMounted(const std::string& device) const;
    bool IsMountPoint(const std::string& directory) const;
};

FakeKernel& Kernel();
void ResetKernel();  // directories: /tmp

}  // namespace test
