// What the command lines of the programs have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <map>
#include <string>

#include "shared/When.h"

namespace kipc_tools {

inline const std::map<std::string, E_WHEN> kColours = {
    {"auto", WHEN_AUTO}, {"always", WHEN_ALWAYS}, {"never", WHEN_NEVER}};

// Names and what stands for the value, without the rules, which the complaints tell.
class Help : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_type_name().empty() ? "" : " " + option->get_type_name();
    }
};

// The root of all sockets.
inline std::string DefaultFolder() {
    const char* const folder = std::getenv("KIPC_DIR");
    return folder && *folder ? folder : "/run/kipc";
}

// A number from its first to its last character, and no more.
template <typename Number>
bool IsNumber(const std::string& text, Number* number) {
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc() && stopped == end;
}

// Complaints; empty: there is none.
inline std::string NoColour(const std::string& word) {
    return kColours.contains(word) ? "" : "'" + word + "' is none of auto, always, never";
}

}  // namespace kipc_tools
