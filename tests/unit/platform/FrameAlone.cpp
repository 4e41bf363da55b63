// A program with a platform of its own that takes only queues and frames from the library: it links when
// these need nothing but the log function.
#include "platform/dcm.h"
#include "platform/frame.h"
#include "platform/kipc.h"
#include "platform/mtp.h"
#include "platform/trace.h"

int ka_log_threshold = 0;

extern "C" {
void ka_log_print(const char*, const char*, int, int, int, int, const char*, ...) {}
int get_vendor_product_flag(unsigned short, unsigned short, const char**, const char**, unsigned int*) {
    return -1;
}
}

namespace kipc {
class Interface::Sender {};
Interface::Interface() : m_sender(nullptr) {}
Interface::~Interface() = default;
void Interface::send_pkt(unsigned long, unsigned int, char*) const {}
}  // namespace kipc

namespace dcm {
const char* const DcmMessage::kMsgName[] = {"none", "usb"};
DcmInterface* DcmInterface::m_pInstance = nullptr;
class DcmInterface::Receiver {};
DcmInterface::DcmInterface() : m_kipc(std::make_shared<kipc::Interface>()) {
    m_queues[QUEUE_USB] = std::make_unique<frame::Message>("usb");
}
DcmInterface::~DcmInterface() = default;
std::shared_ptr<kipc::Interface>& DcmInterface::GetKipcSP() {
    return m_kipc;
}
frame::Message* DcmInterface::GetMessageQueue(unsigned position) const {
    return m_queues[position].get();
}
}  // namespace dcm

namespace {

class OneRecord : public frame::Frame {
public:
    using Frame::Frame;
    void event_handler(unsigned long src, unsigned int, char*) override {
        m_source = src;
        stop();
    }
    unsigned long m_source = 0;
};

}  // namespace

int main() {
    dcm::DcmInterface interface;
    frame::Message* queue = interface.GetMessageQueue(dcm::DcmInterface::QUEUE_USB);
    const char* vendor = nullptr;
    if (get_vendor_product_flag(1, 1, &vendor, nullptr, nullptr) == 0) return 1;
    queue->push(4096, 1, "x");
    OneRecord frame(interface.GetKipcSP(), frame::BLOCK_WAIT, queue, nullptr);
    frame.run();
    frame.join();
    return frame.m_source == 4096 ? 0 : 2;
}
