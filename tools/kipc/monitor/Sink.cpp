#include "monitor/Sink.h"

#include <algorithm>

#include "monitor/CaptureWriter.h"

namespace kipcmon {

Sink::Sink(const Options& options, E_COLOUR colour, Output* lines, Output* capture)
    : m_options(options), m_colour(colour), m_lines(lines), m_capture(capture) {
    if (m_capture) Write(m_capture, CaptureHead());
}

bool Sink::Take(records::Bytes datagram, std::uint64_t lost, std::string* refusal) {
    std::optional<Datagram> read = ReadDatagram(datagram, refusal);
    if (!read) return false;
    if (over()) return true;

    Entry entry(std::move(*read));
    m_lost += std::max(lost, entry.lost);  // a capture says it twice
    if (!m_options.filter.Passes(entry)) return true;
    entry.lost = m_lost;
    m_lost = 0;
    ++m_shown;
    if (m_capture) Write(m_capture, CapturePacket(datagram, entry.datagram.wall_ns, entry.lost));
    if (!m_lines) return true;
    std::string text;
    if (m_options.format == FORMAT_JSON) {
        text = JsonOf(entry) + "\n";
    } else {
        if (entry.lost > 0) text = LostLine(entry.lost, m_colour) + "\n";
        text += LineOf(entry, m_colour) + "\n";
    }
    Write(m_lines, text);
    return true;
}

void Sink::Write(Output* output, std::string_view bytes) {
    if (m_written != WRITE_DONE) return;
    m_written = output->Write(bytes);
    m_error = output->error();
}

}  // namespace kipcmon
