// The processes whose taps are connected: their datagrams one by one, in the order in which they are read.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "records/Records.h"

namespace kipcmon {

class Connections {
public:
    // What becomes of a datagram: false hangs up on the process.
    using Taker = std::function<bool(records::Bytes datagram, pid_t process)>;
    using Leaver = std::function<void(pid_t process)>;  // one left by itself

    // `listener` stays the caller's, and is non-blocking.
    Connections(int listener, Taker take, Leaver left);
    ~Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    // Until something was read, `stop` is readable or the time is over; -1: no limit.
    void Wait(int stop, int timeout_ms);

private:
    struct Connection {
        int descriptor;
        pid_t process;
        bool is_known;  // its last datagram was taken
    };

    void Accept();
    bool Read(Connection* connection);
    void Close(std::size_t index);

    int m_listener;
    Taker m_take;
    Leaver m_left;
    std::vector<Connection> m_connections = {};
    std::vector<unsigned char> m_datagram;
};

}  // namespace kipcmon
