// Logs one line per argument "level:text", for tests of what the trace log reads at start.
#include <cstdlib>

#include "platform/trace.h"

int main(int count, char** arguments) {
    for (int i = 1; i < count; ++i) {
        char* text = nullptr;
        const long level = std::strtol(arguments[i], &text, 10);
        ka_log_print("/build/src/Writer.cpp", "main", 7, static_cast<int>(level), 2816, 0, "%s", text + 1);
    }
}
