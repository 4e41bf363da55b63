#include "Measured.h"

extern "C" void Measured(bench::Step step, long steps) {
    for (long number = 0; number < steps; ++number)
        step(number);
}
