// What the nodes take from outside and a test makes fail, or stands in for.
#pragma once

#include <string>
#include <vector>

namespace test {

struct Outside {
    bool mutex_init_fails = false;
    bool mutex_destroy_fails = false;
    bool nothrow_new_fails = false;
    std::vector<std::string> commands;  // of USpawn::RunCmd: nothing is run
    int command_result = 0;
    int command_error = 0;  // errno that a failed command leaves behind
    unsigned slept = 0;     // seconds that sleep() was asked for; no time passes
    int mount_result = 0;   // of UMount::Mount: nothing is mounted
    int mounted = 0;        // calls of UMount::Mount
    int unmounted = 0;      // calls of UMount::UnMount
};

extern Outside outside;

}  // namespace test
