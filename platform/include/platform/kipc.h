// Packets between the head unit's processes.
#pragma once

#include <memory>

namespace kipc {

// The way out of this process to the others. One per process, shared by all frames.
class Interface {
public:
    Interface();
    ~Interface();
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    // Any thread. Never blocks and never fails towards the caller: the packet is copied and handed to each
    // receiver whose bit is set in `dest`. A receiver that is absent, died or stopped reading loses the
    // packet once its backlog is full; the loss is counted and logged, and costs no other receiver anything.
    void send_pkt(unsigned long dest, unsigned int len, char* buf) const;

private:
    class Sender;
    std::unique_ptr<Sender> m_sender;
};

}  // namespace kipc
