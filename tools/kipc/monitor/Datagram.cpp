#include "monitor/Datagram.h"

#include <cstring>

#include "platform/tap.h"

namespace kipcmon {
namespace {

std::string Printable(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string printable;
    for (const char one : text) {
        const auto byte = static_cast<unsigned char>(one);
        if (byte >= ' ' && byte < 0x7f && byte != '\\')
            printable += one;
        else
            printable += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return printable;
}

template <std::size_t size>
std::string ReadName(const char (&name)[size], const char* whose, std::vector<std::string>* faults) {
    const std::size_t length = strnlen(name, size);
    if (length == size) faults->push_back(std::string(whose) + "'s name is not terminated");
    return Printable({name, length});
}

std::string Count(std::size_t number) {
    return std::to_string(number) + (number == 1 ? " byte" : " bytes");
}

}  // namespace

std::optional<Datagram> ReadDatagram(records::Bytes bytes, std::string* refusal) {
    kipc::TapHead head;
    if (bytes.size() < sizeof head) {
        *refusal = Count(bytes.size()) + " are less than a head";
        return std::nullopt;
    }
    std::memcpy(&head, bytes.data(), sizeof head);
    if (head.magic != kipc::kTapMagic) {
        *refusal = "it is not the tap's: another magic number";
        return std::nullopt;
    }
    if (head.version != kipc::kTapVersion) {
        *refusal = "the tap speaks version " + std::to_string(head.version) + ", this program version " +
                   std::to_string(kipc::kTapVersion);
        return std::nullopt;
    }
    if (head.head_bytes < sizeof head || head.head_bytes > bytes.size()) {
        *refusal = "a head of " + Count(head.head_bytes) + " in a datagram of " + Count(bytes.size());
        return std::nullopt;
    }

    Datagram datagram;
    datagram.monotonic_ns = head.monotonic_ns;
    datagram.wall_ns = head.wall_ns;
    datagram.lost = head.lost;
    datagram.direction = head.direction;
    datagram.outcome = head.outcome;
    datagram.sender = ReadName(head.sender, "sender", &datagram.faults);
    datagram.receiver = ReadName(head.receiver, "receiver", &datagram.faults);
    datagram.record = bytes.subspan(head.head_bytes);
    if (head.length != datagram.record.size())
        datagram.faults.push_back("the head says " + Count(head.length) + ", " +
                                  Count(datagram.record.size()) + " came");
    if (DirectionWord(head.direction) == "unknown")
        datagram.faults.push_back("direction " + std::to_string(head.direction));
    if (OutcomeWord(head.outcome) == "unknown")
        datagram.faults.push_back("outcome " + std::to_string(head.outcome));
    return datagram;
}

std::string_view DirectionWord(unsigned direction) {
    switch (direction) {
        case kipc::TAP_IN:
            return "in";
        case kipc::TAP_OUT:
            return "out";
    }
    return "unknown";
}

std::string_view OutcomeWord(unsigned outcome) {
    switch (outcome) {
        case kipc::TAP_DELIVERED:
            return "delivered";
        case kipc::TAP_NO_RECEIVER:
            return "no receiver";
        case kipc::TAP_FULL:
            return "full";
    }
    return "unknown";
}

}  // namespace kipcmon
