// The whole terminal, for a table that refreshes; given back at the end.
#pragma once

#include <string>
#include <vector>

namespace ports {

class Screen {
public:
    Screen(int terminal, int stop);  // neither is closed
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Lines that do not fit are cut, at the right and at the bottom. False when nobody sees it any more.
    bool Show(const std::vector<std::string>& lines);

private:
    const int m_terminal;
    const int m_stop;
};

// All of it; false with errno, ECANCELED when `stop` (or -1) became readable while there was no room.
bool WriteAll(int fd, int stop, const std::string& text);

}  // namespace ports
