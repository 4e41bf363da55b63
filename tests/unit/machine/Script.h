// What happens to the unit, step by step: drawn by lot, with a liking for what brings a port on. The same
// seed gives the same steps. A step changes the world, tells the model, and says what reaches the service.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Machine.h"
#include "Model.h"
#include "World.h"

namespace test {

class Lot {
public:
    explicit Lot(std::uint64_t seed) : m_engine(seed) {}

    unsigned Below(unsigned limit) { return static_cast<unsigned>(m_engine() % limit); }
    bool Percent(unsigned chance) { return Below(100) < chance; }
    template <typename Thing>
    Thing OneOf(const std::vector<Thing>& things) {
        return things[Below(static_cast<unsigned>(things.size()))];
    }

private:
    std::mt19937_64 m_engine;
};

struct Step {
    std::string text;
    Happening happening;
    std::int64_t time = 0;  // nanoseconds; when not 0, nothing else happens
    unsigned passes = 1;
};

class Script {
public:
    Script(Lot& lot, World& world, Model& model) : m_lot(lot), m_world(world), m_model(model) {}

    Step Next();

private:
    // What happens on one port of the unit, in order. Two of them, on different ports, can happen at once.
    struct Part {
        std::string text;
        Happening happening;
        std::vector<std::function<void()>> effects;  // on the model, when the world is changed
    };
    enum E_DEED { PULL, REPLUG, REBIND, HID, NET, ANSWERS, ASK, kDeeds };

    void Faults(Step& step);
    void Noise(Step& step);
    void Join(Step& step, Part part);

    bool TimeMoves(Step& step);
    bool PollsEnd(Step& step);
    bool Tty(Step& step);
    bool Search(Step& step);
    bool Menu(Step& step);
    bool Diagnosis(Step& step);
    bool IsAnyPort(E_STATE state) const;

    Part OnPort(unsigned unit_port);
    E_PLACE PlaceOn(unsigned unit_port);
    Part Hub();
    Part OnEmptyPlace(E_PLACE place);
    Part OnDevice(E_PLACE place);
    E_DEED Deed(E_PLACE place);

    Device NewDevice(E_PLACE place);
    Device Returned(E_PLACE place);
    Answers DrawAnswers();
    void Plug(Part& part, const Device& device);
    void Pull(Part& part, E_PLACE place);
    void Ask(Part& part, E_PLACE place);
    unsigned RequestFor(const Device& device, E_STATE state);

    Lot& m_lot;
    World& m_world;
    Model& m_model;
    std::map<E_PLACE, Device> m_last;  // that was pulled there
    std::vector<std::string> m_ttys;
    Switches m_switches;
    Coding m_coding;
    unsigned m_requests = 0;
    unsigned m_polls_in_vain = 0;
    bool m_both_ports = false;  // something happens on both in this step
};

}  // namespace test
