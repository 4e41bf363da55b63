// A descriptor that is written to without being held up by it when the program is told to stop.
#pragma once

#include <string>
#include <string_view>

namespace kipcmon {

enum E_WRITE { WRITE_DONE, WRITE_STOPPED, WRITE_FAILED };

class Output {
public:
    // `stop` becomes readable when nobody may be waited for any more; -1: never. Neither is closed.
    Output(int descriptor, int stop);

    // All of it, before it returns.
    E_WRITE Write(std::string_view bytes);
    int error() const { return m_error; }

private:
    int m_descriptor;
    int m_stop;
    bool m_may_wait;  // a pipe or a terminal: its other end decides when there is room
    int m_error = 0;
};

}  // namespace kipcmon
