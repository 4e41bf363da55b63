#include "platform/kipc.h"

#include "Outbox.h"

namespace kipc {

class Interface::Sender {
public:
    std::shared_ptr<platform::Outbox> outbox = platform::Outbox::Shared();
};

Interface::Interface() : m_sender(std::make_unique<Sender>()) {}

Interface::~Interface() = default;

void Interface::send_pkt(unsigned long dest, unsigned int len, char* buf) const {
    m_sender->outbox->Send(dest, len, buf);
}

}  // namespace kipc
