// How the platform starts its threads: named, and without an exception when the system has none left.
#pragma once

#include <pthread.h>

#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "Log.h"

namespace platform {

// Debuggers, `ps -T` and the trace log show the first 15 bytes of the name. False when no thread could be
// made.
template <typename Body>
bool StartThread(std::thread* thread, std::string name, Body body) {
    constexpr std::size_t kNameBytes = 15;  // kernel: TASK_COMM_LEN - 1
    if (name.size() > kNameBytes) name.resize(kNameBytes);
    try {
        *thread = std::thread([name, work = std::move(body)] {
            pthread_setname_np(pthread_self(), name.c_str());
            work();
        });
    } catch (const std::system_error& error) {
        PLOG(LOG_FAILED, "no thread for %s: %s", name.c_str(), error.what());
        return false;
    }
    return true;
}

}  // namespace platform
