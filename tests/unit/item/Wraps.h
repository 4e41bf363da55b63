// What the items take from outside and a test moves, makes fail, or stands in for.
#pragma once

#include <ctime>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test {

struct Outside {
    bool clock_is_ours = false;  // what CLOCK_MONOTONIC says is `now`
    timespec now{};
    int clock_error = 0;  // errno of a clock that fails
    bool nothrow_new_fails = false;
    std::size_t new_fails_for = 0;      // this many bytes cannot be had
    std::vector<std::string> commands;  // of USpawn::RunCmd: nothing is run
    int command_result = 0;
    int command_error = 0;                // errno that a failed command leaves behind
    std::function<void()> while_command;  // what happens while the command runs
    std::vector<unsigned> sleeps;         // microseconds of each usleep(); our clock moves on
};

extern Outside outside;

void MoveClock(long long milliseconds);

}  // namespace test
