// What was sent and what came, on standard output: one line for people, or one JSON object a line. Complaints
// go to standard error.
#pragma once

#include <cstdio>
#include <string>

#include "records/Records.h"

namespace kipcsend {

enum E_FORMAT { FORMAT_TEXT, FORMAT_JSON };
enum E_DIRECTION { TO_SERVICE, FROM_SERVICE };

struct Passed {
    E_DIRECTION direction;
    std::string peer;
    records::Bytes bytes;
    bool is_answer = false;
};

// The description that fits, null when none does.
const records::Record* DescriptionOf(const Passed& passed);

std::string TextOf(const Passed& passed);  // one line, safe for a terminal
std::string JsonOf(const Passed& passed);  // one line, all ASCII
std::string HexLines(records::Bytes bytes);

void Complain(const std::string& text);

}  // namespace kipcsend
