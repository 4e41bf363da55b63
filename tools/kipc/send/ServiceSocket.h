// The way to the service: its socket for one peer.
#pragma once

#include <chrono>
#include <string>

#include "UnixSocket.h"
#include "records/Records.h"

namespace kipcsend {

class ServiceSocket {
public:
    ServiceSocket(const std::string& root, const std::string& peer);

    // False: Problem() says why, in words.
    bool Connect();
    bool Send(records::Bytes bytes);

    // Tells the service that nothing more comes, and waits until it has read all. False: it did not, or it
    // turned the connection away.
    bool WaitUntilTaken(std::chrono::milliseconds patience);

    // Readable when the service has closed the connection.
    int Fd() const { return m_socket.Get(); }
    enum E_END { END_READ_ALL, END_UNREAD };
    E_END WhyClosed() const;  // END_UNREAD: it never read the record

    const std::string& Problem() const { return m_problem; }

private:
    std::string NotAllowed() const;

    const std::string m_path;
    const std::string m_peer;
    Descriptor m_socket;
    std::string m_problem;
};

}  // namespace kipcsend
