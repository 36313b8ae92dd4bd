// How a command ends when it cannot go on.
#pragma once

#include <stdexcept>
#include <string>

#include "host/world/printable.h"

namespace console
{

// The same for every subcommand; `ats --help` and ats(8) list them.
enum exit_code : int {
    exit_ok = 0,
    exit_failed = 1,      // carried out, and the answer is no: not found, timed out, a step failed
    exit_usage = 2,       // the command line, an argument, a file or a folder is wrong
    exit_unreachable = 3, // no service answers on the socket
};

// what() is one line that says what is wrong and what would be right.
struct failure : std::runtime_error {
    failure(exit_code code, const std::string& why) : std::runtime_error(why), code(code) {}
    const exit_code code;
};

// Repeats a person's text in an error line: in quotation marks, cut to 60 bytes, control characters escaped.
inline std::string quote(const std::string& word)
{
    constexpr size_t longest = 60;
    const std::string shown = world::printable(world::cut_to_bytes(word, longest));
    return word.size() <= longest ? "'" + shown + "'" : "'" + shown + "...'";
}

} // namespace console
