// The place at `<root>/tap`: a listening socket that is this process's while the object lives.
#pragma once

#include <sys/types.h>

#include <string>

namespace kipcmon {

enum E_TAKE {
    TAKE_DONE,
    TAKE_TAKEN,  // another process listens there
    TAKE_FAILED
};

class Tap {
public:
    explicit Tap(std::string folder);
    ~Tap();
    Tap(const Tap&) = delete;
    Tap& operator=(const Tap&) = delete;

    // A socket file that nobody listens at is removed first. `said`: why not, or what was removed; else
    // empty.
    E_TAKE Take(std::string* said);

    int listener() const { return m_listener; }
    const std::string& path() const { return m_path; }

private:
    E_TAKE TakeAlone(std::string* said);
    bool RemoveIfStale(E_TAKE* result, std::string* said);
    bool IsOurs() const;

    std::string m_folder;
    std::string m_path;
    int m_listener = -1;
    dev_t m_device = 0;  // of the file that we made
    ino_t m_inode = 0;
};

}  // namespace kipcmon
