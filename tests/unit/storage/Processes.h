// Pipes and children as the program under test sees them: real ones, unless a test lets one fail. The tool
// that it starts is a shell script of the test; $0 is the tool's path, $1 and so on its arguments. Test's
// thread.
#pragma once

#include <string>

namespace test {

struct Processes {
    std::string script;         // what the tool does
    bool tool_missing = false;  // execv fails
    int pipe_error = 0;
    bool pipe_without_write_end = false;
    int fork_error = 0;
    bool play_child = false;  // fork answers 0 here, in this process; _exit throws Exited, dup2 does nothing
    int dup2_error = 0;
    int select_interruptions = 0;
    int select_error = 0;
    int waitpid_interruptions = 0;
    int waitpid_error = 0;

    // What happened.
    int pipe_flags = -1;
    std::string executed;  // path and arguments of execv, of a played child
    int selects = 0;
    int waits = 0;  // children waited for with success
};

struct Exited {
    int status;
};

extern Processes processes;

int OpenDescriptors();  // of this process

}  // namespace test
