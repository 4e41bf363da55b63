#include "platform/kipc.h"

#include <memory>

#include "Outbox.h"

namespace kipc {

class Interface::Sender {
public:
    std::shared_ptr<platform::Outbox> outbox = platform::Outbox::Shared();
};

Interface::Interface() : m_sender(new Sender) {}

Interface::~Interface() {
    delete m_sender;
}

void Interface::send_pkt(unsigned long dest, unsigned int len, char* buf) const {
    m_sender->outbox->Send(dest, len, buf);
}

}  // namespace kipc
