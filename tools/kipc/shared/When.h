// Whether output is coloured, as the option --color says it.
#pragma once

#include <cstdlib>

namespace kipc_tools {

enum E_WHEN { WHEN_AUTO, WHEN_ALWAYS, WHEN_NEVER };

// auto: on a terminal, unless the environment has NO_COLOR (no-color.org: set and not empty).
inline bool IsColoured(E_WHEN when, bool on_terminal) {
    switch (when) {
        case WHEN_ALWAYS:
            return true;
        case WHEN_NEVER:
            return false;
        case WHEN_AUTO:
            break;
    }
    const char* const none = std::getenv("NO_COLOR");
    return on_terminal && !(none && *none);
}

}  // namespace kipc_tools
