// The exit codes of commands, and functions that turn errors into exit codes and text.
#pragma once

#include <functional>
#include <string>

#include "host/result.h"
#include "host/world/printable.h"

namespace console
{

// All subcommands use these exit codes; `ats --help` and ats(8) list them.
enum exit_code : int {
    exit_ok = 0,
    exit_failed = 1,      // executed without success: not found, timed out, a step failed
    exit_usage = 2,       // the command line, an argument, a file or a folder is wrong
    exit_unreachable = 3, // no service answers on the socket, or the service cannot take the request
};

// Returns the exit code of a command that ends with an error of this kind.
constexpr exit_code exit_code_of(ats::error_kind kind)
{
    switch (kind) {
    case ats::error_kind::invalid:
        return exit_usage;
    case ats::error_kind::unreachable:
        return exit_unreachable;
    default:
        return exit_failed;
    }
}

// Returns the kind of error for an exit code. The service sends an exit code in its answer to a failed request.
constexpr ats::error_kind error_kind_of(int code)
{
    switch (code) {
    case exit_usage:
        return ats::error_kind::invalid;
    case exit_unreachable:
        return ats::error_kind::unreachable;
    default:
        return ats::error_kind::failed;
    }
}

// Turns the body of a command into a callback for CLI11. The callback stores the exit code or the error in `outcome`.
// `outcome` must outlive the callback.
inline std::function<void()> command_callback(ats::result<int>& outcome, std::function<ats::result<int>()> body)
{
    return [&outcome, body = std::move(body)] { outcome = body(); };
}

// Quotes a text of the user for an error line: cuts it to at most 60 bytes, escapes control characters, and adds
// quotation marks.
inline std::string quote(const std::string& word)
{
    constexpr size_t longest = 60;
    const std::string text = world::printable(world::cut_to_bytes(word, longest));
    const char* const end = word.size() <= longest ? "'" : "...'";
    return "'" + text + end;
}

} // namespace console
