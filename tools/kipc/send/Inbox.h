// The inbox of the peer that is played, where the service's answers arrive: `<root>/<peer>/usb`. Taken only
// when nobody else listens there, and given back at the end as it was found.
#pragma once

#include <poll.h>

#include <optional>
#include <string>
#include <vector>

#include "UnixSocket.h"

namespace kipcsend {

class Inbox {
public:
    Inbox(const std::string& root, const std::string& peer);
    ~Inbox();
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    enum E_STATE {
        OURS,    // it is heard here
        THEIRS,  // the peer itself listens there
        DENIED,  // nobody can be heard: Problem() says why
    };
    E_STATE Open();
    const std::string& Problem() const { return m_problem; }

    // What poll() is to wait for.
    void AddTo(std::vector<pollfd>* waits) const;

    // The next record that is there, without waiting.
    std::optional<std::vector<unsigned char>> Receive();

private:
    E_STATE Deny(const std::string& problem);
    int MakeFolder();  // the error's number
    E_STATE TakeOver();
    void Accept();

    const std::string m_folder;
    const std::string m_path;
    const std::string m_peer;
    bool m_made_folder = false;
    bool m_made_socket = false;
    unsigned long m_inode = 0;  // of the socket's file
    Descriptor m_listener;
    std::vector<Descriptor> m_connections;
    std::string m_problem;
};

}  // namespace kipcsend
