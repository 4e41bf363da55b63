#include <cstdio>
#include <ctime>

#include "monitor/Entry.h"
#include "platform/tap.h"

namespace kipcmon {
namespace {

constexpr std::size_t kMostHexBytes = 64;  // of a record that no description fits

constexpr std::string_view kFaint = "\033[2m";
constexpr std::string_view kBold = "\033[1m";
constexpr std::string_view kCyan = "\033[36m";
constexpr std::string_view kYellow = "\033[33m";
constexpr std::string_view kRed = "\033[31m";
constexpr std::string_view kPlain = "\033[0m";

class Painter {
public:
    explicit Painter(E_COLOUR colour) : m_colour(colour) {}

    std::string operator()(std::string_view colour, std::string_view text) const {
        if (m_colour == COLOUR_OFF) return std::string(text);
        return std::string(colour).append(text).append(kPlain);
    }

private:
    E_COLOUR m_colour;
};

std::string TimeOfDay(std::uint64_t wall_ns) {
    const auto seconds = static_cast<std::time_t>(wall_ns / 1000000000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%06u",
                  static_cast<unsigned>(wall_ns / 1000 % 1000000));
    return text;
}

std::string Road(const Datagram& datagram) {
    char text[256];
    std::snprintf(text, sizeof text, "%8s -> %-8s", datagram.sender.c_str(), datagram.receiver.c_str());
    return text;
}

bool IsWorthALine(const records::Field& field, const Entry& entry) {
    const records::Bytes bytes = entry.datagram.record;
    if (!records::SaysSomething(field) || !records::Holds(field, bytes)) return false;
    return field.kind != records::KIND_TEXT || !records::Text(field, bytes).empty();
}

std::string Unknown(records::Bytes bytes) {
    std::string text = std::to_string(bytes.size()) + " bytes that no description fits: ";
    if (bytes.size() <= kMostHexBytes) return text + Hex(bytes);
    return text + Hex(bytes.first(kMostHexBytes)) + "...";
}

}  // namespace

std::string LineOf(const Entry& entry, E_COLOUR colour) {
    const Painter paint(colour);
    const Datagram& datagram = entry.datagram;
    std::string line = paint(kFaint, TimeOfDay(datagram.wall_ns)) + " " + paint(kCyan, Road(datagram)) + " ";
    if (entry.record) {
        line += paint(kBold, entry.record->name);
        for (const records::Field& field : entry.record->fields)
            if (IsWorthALine(field, entry))
                line +=
                    " " + paint(kFaint, std::string(field.name) + "=") + records::Say(field, datagram.record);
    } else {
        line += paint(kBold, Unknown(datagram.record));
    }
    for (const std::string& fault : entry.faults)
        line += " " + paint(kRed, "[" + fault + "]");
    if (datagram.outcome != kipc::TAP_DELIVERED)
        line += " " + paint(kYellow, "(" + std::string(OutcomeWord(datagram.outcome)) + ")");
    return line;
}

std::string LostLine(std::uint64_t lost, E_COLOUR colour) {
    const std::string text =
        std::to_string(lost) + (lost == 1 ? " record was" : " records were") + " lost here";
    return Painter(colour)(kYellow, text);
}

}  // namespace kipcmon
