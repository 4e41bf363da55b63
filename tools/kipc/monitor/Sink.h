// What becomes of each datagram, wherever it comes from: filtered, counted, shown and kept.
#pragma once

#include <cstdint>
#include <string>

#include "monitor/Entry.h"
#include "monitor/Options.h"
#include "monitor/Output.h"

namespace kipcmon {

class Sink {
public:
    // Either output may be null. Both stay the caller's.
    Sink(const Options& options, E_COLOUR colour, Output* lines, Output* capture);

    // False when it is none of a tap that we know: `refusal` says why. `lost` is what else is known to be
    // missing before it.
    bool Take(records::Bytes datagram, std::uint64_t lost, std::string* refusal);

    // The count is reached, or an output takes nothing any more.
    bool over() const { return reached() || m_written != WRITE_DONE; }
    bool reached() const { return m_options.count > 0 && m_shown == m_options.count; }
    E_WRITE written() const { return m_written; }  // the first failure, else WRITE_DONE
    int error() const { return m_error; }
    std::uint64_t lost() const { return m_lost; }  // not shown yet, since no record behind it was

private:
    void Write(Output* output, std::string_view bytes);

    const Options& m_options;
    E_COLOUR m_colour;
    Output* m_lines;
    Output* m_capture;
    std::uint64_t m_shown = 0;
    std::uint64_t m_lost = 0;
    E_WRITE m_written = WRITE_DONE;
    int m_error = 0;
};

}  // namespace kipcmon
