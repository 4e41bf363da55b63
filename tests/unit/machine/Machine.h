// The service's three frames, running for real on their threads, with everything around them made up: kernel
// events, time, shell commands, libusb, queues of other services. The test lets things happen, and waits
// until nothing moves any more.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Said.h"
#include "World.h"

namespace test {

// What happens to the service at once: the events wait in its socket and the messages in its inbox when it
// begins to work on both.
struct Happening {
    std::vector<std::string> uevents;
    std::vector<std::pair<unsigned long, Bytes>> messages;
};

class Machine {
public:
    explicit Machine(World& world);  // starts the frames, and lets the unit's own devices arrive
    ~Machine();                      // ends them
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Comes back when all queues are empty and all frames wait again. False: they did not for 20 seconds.
    // While it works the monitor frame makes at least `passes` of its rounds.
    [[nodiscard]] bool Let(const Happening& happening, unsigned passes = 1);

    // Moves the time of all frames, and lets the timers that are over see it.
    [[nodiscard]] bool MoveTime(std::int64_t nanoseconds);

    Said Take();  // what was said since the last call

    std::vector<unsigned> Ports() const;  // that have a state, up to 99
    std::optional<unsigned> StateOf(unsigned port) const;

private:
    struct Frames;

    [[nodiscard]] bool Settle();
    void Listen();

    World& m_world;
    std::unique_ptr<Frames> m_frames;
};

}  // namespace test
