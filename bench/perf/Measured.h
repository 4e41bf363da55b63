// Callgrind counts instructions inside Measured() only (--toggle-collect=Measured); what a program does
// before is its warm-up.
#pragma once

namespace bench {

using Step = void (*)(long number);

inline constexpr long kSteps = 1000;  // of every program

extern "C" void Measured(Step step, long steps);

// Runs `step` often enough that nothing is met for the first time, then counted.
inline void WarmUpAndMeasure(Step step, long warm_up = kSteps) {
    for (long number = 0; number < warm_up; ++number)
        step(number);
    Measured(step, kSteps);
}

}  // namespace bench
