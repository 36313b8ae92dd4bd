// The commands that the module ats accepts in its control file. `ats control` checks a command before it writes the
// command to the file. The module does not return an error for a wrong command: it only logs a line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/result.h"

namespace console
{

// Returns a table of the commands, their arguments and effects.
std::string list_control_commands();

// Joins `words`, the arguments of `ats control`, to one line for the control file. The line begins with the command.
// Each argument may contain several words. Fails (invalid) if the command is missing or unknown, the number of its
// arguments is wrong, a GID, an address or a name is wrong, or a word is too long.
ats::result<std::string> control_line(const std::vector<std::string>& words);

// Returns a warning about the effect of `line`, which is a result of control_line(). Returns "" if no warning is
// needed.
std::string control_warning(const std::string& line);

// `output` is the text that the module logged during a command. Returns true if the command failed: the output then
// contains an error line, or a line without a trace level. Warnings and lines of higher trace levels do not count.
bool is_complaint(std::string_view output);

} // namespace console
