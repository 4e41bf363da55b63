// The whole service against the reference, over many steps drawn by lot.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <set>

#include "Machine.h"
#include "Model.h"
#include "Said.h"
#include "Script.h"
#include "World.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/Format.h"

namespace test {
namespace {

constexpr std::uint64_t kSeed = 5;
constexpr unsigned kSteps = 10000;
constexpr unsigned kStepsOfALife = 500;  // after which the service starts anew, with the other hub
constexpr std::size_t kStepsShown = 20;

// Where the run with the usual seed leads: each way from state to state, and the ends of the retries.
const std::vector<std::pair<E_STATE, std::string>> kRoads = {
    {DETACH, "add 0"},
    {DETACH, "add 5"},
    {DETACH, "add 6"},
    {DETACH, "add 8"},
    {DETACH, "add 9"},
    {DETACH, "add 10"},
    {ATTACH, "remove"},
    {ATTACH, "hid add"},
    {ATTACH, "poll"},
    {ATTACH, "five polls in vain"},
    {ATTACH, "request 12"},
    {ATTACH, "request 13"},
    {ATTACH, "request 15"},
    {ATTACH, "request 16"},
    {CP_SUPPORT, "request 14"},
    {CP_SUPPORT, "request 16"},
    {CP_SUPPORT, "remove"},
    {AA_CHANGING, "add 0"},
    {AA_CHANGING, "add 9"},
    {AA_CHANGING, "remove"},
    {AA_CHANGING, "a late start worked"},
    {AA_CHANGING, "the last start failed"},
    {AA_CHANGING, "CH timeout, something there"},
    {AA_CHANGING, "deferred, nothing there"},
    {AA_CHANGING, "deferred, something there"},
    {ML_CHANGING, "add 9"},
    {ML_CHANGING, "CH timeout, something there"},
    {ML_CHANGING, "deferred, nothing there"},
    {CP_CHANGING, "tty add"},
    {CP_CHANGING, "remove"},
    {CP_CHANGING, "request 17"},
    {CL_CHANGING, "add 0"},
    {CL_CHANGING, "add 9"},
    {CL_CHANGING, "CH timeout, something there"},
    {CL_CHANGING, "deferred, nothing there"},
    {AA, "remove"},
    {AA, "request 12"},
    {AA, "request 17"},
    {ML, "remove"},
    {ML, "request 17"},
    {CP, "add 6"},
    {CP, "tty change"},
    {CP, "request 17"},
    {CP, "hub mode"},
    {CL, "remove"},
    {CL, "request 15"},
    {CL, "request 17"},
    {AA_RESETTING, "add 0"},
    {AA_RESETTING, "add 9"},
    {AA_RESETTING, "another device"},
    {AA_RESETTING, "ten resets were in vain"},
    {AA_RESETTING, "deferred, nothing there"},
    {AA_RESETTING, "deferred, something there"},
    {ML_RESETTING, "add 9"},
    {ML_RESETTING, "another device"},
    {ML_RESETTING, "deferred, nothing there"},
    {CP_RESETTING, "add 6"},
    {CP_RESETTING, "tty change"},
    {CP_RESETTING, "CarPlay timeout, nothing there"},
    {CP_RESETTING, "CarPlay timeout, something there"},
    {CL_RESETTING, "add 6"},
    {CL_RESETTING, "add 9"},
    {CL_RESETTING, "deferred, nothing there"},
};

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* const text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

std::string States(const std::vector<unsigned>& ports, const std::function<unsigned(unsigned)>& state_of) {
    std::string text;
    for (const unsigned port : ports) {
        const unsigned state = state_of(port);
        text += Format(" %u:%s", port, state < kStates ? kStateNames[state] : "?");
    }
    return text;
}

// One run of the service, from its start to its end.
class Life {
public:
    Life(Lot& lot, bool two_port_hub)
        : m_world(two_port_hub), m_machine(m_world), m_model(m_world), m_script(lot, m_world, m_model) {}

    // What went wrong; empty when nothing did.
    std::string Live(unsigned steps) {
        for (unsigned number = 1; number <= steps; ++number) {
            const std::string wrong = Step(number);
            if (!wrong.empty()) return wrong + LastSteps();
        }
        return "";
    }

    bool IsStuck() const { return m_is_stuck; }
    const Model& model() const { return m_model; }

private:
    std::string Step(unsigned number) {
        const test::Step step = m_script.Next();
        m_steps.push_back(Format("  %4u %s", number, step.text.c_str()));
        if (m_steps.size() > kStepsShown) m_steps.pop_front();
        const bool rests =
            step.time ? m_machine.MoveTime(step.time) : m_machine.Let(step.happening, step.passes);
        if (!rests) {
            m_is_stuck = true;
            return "The frames do not come to rest.\n";
        }
        const std::string expected =
            States(m_model.Ports(), [this](unsigned port) { return m_model.StateOf(port); });
        const std::string found =
            States(m_machine.Ports(), [this](unsigned port) { return m_machine.StateOf(port).value_or(99); });
        m_steps.back() += "\n       " + expected + " |" + m_model.Items();
        std::string wrong = Difference(m_model.Take(), m_machine.Take());
        if (expected != found) wrong += "  expected states" + expected + "\n  found states   " + found + "\n";
        return wrong;
    }

    std::string LastSteps() const {
        std::string text = "The last steps, with the expected states and the timers:\n";
        for (const std::string& step : m_steps)
            text += step + "\n";
        return text;
    }

    World m_world;
    Machine m_machine;
    Model m_model;
    Script m_script;
    std::deque<std::string> m_steps;
    bool m_is_stuck = false;
};

TEST(Machine, DoesWhatTheTablesSayWhateverHappens) {
    const std::uint64_t seed = FromEnvironment("USB_MACHINE_SEED", kSeed);
    const auto steps = static_cast<unsigned>(FromEnvironment("USB_MACHINE_STEPS", kSteps));
    std::printf("USB_MACHINE_SEED=%" PRIu64 "\n", seed);
    std::fflush(stdout);  // before a sanitizer speaks
    Lot lot(seed);
    std::set<std::pair<E_STATE, std::string>> met;
    for (unsigned done = 0; done < steps; done += kStepsOfALife) {
        const bool two_port_hub = done / kStepsOfALife % 2 == 0;
        Life life(lot, two_port_hub);
        const std::string wrong = life.Live(std::min(kStepsOfALife, steps - done));
        if (!wrong.empty()) {
            ADD_FAILURE() << "USB_MACHINE_SEED=" << seed << ", after " << done << " steps of earlier lives, "
                          << (two_port_hub ? "with" : "without") << " the two-port hub:\n"
                          << wrong;
            if (life.IsStuck()) std::_Exit(1);  // a frame that hangs cannot be ended
            return;
        }
        met.insert(life.model().Met().begin(), life.model().Met().end());
    }
    // A script that never leads there would show nothing.
    if (seed != kSeed || steps != kSteps) return;
    for (const auto& pair : kRoads)
        EXPECT_TRUE(met.contains(pair)) << kStateNames[pair.first] << " never met: " << pair.second;
    EXPECT_GT(met.size(), 250u) << "pairs of state and event";
}

}  // namespace
}  // namespace test
