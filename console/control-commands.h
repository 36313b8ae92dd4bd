// The commands of the control file of ats. `ats control` checks them, because the module does not report a wrong
// command to its writer. It only writes a line to its log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/result.h"

namespace console
{

// Returns a table of the commands, their arguments and effects.
std::string list_control_commands();

// Joins the arguments to one line. An argument may have several words. Fails (invalid) if the command is unknown, the
// number of its arguments is wrong, or a word is too long.
ats::result<std::string> control_line(const std::vector<std::string>& words);

// Returns a warning about the effect of this command line, or "" for most lines.
std::string control_warning(const std::string& line);

// Returns true if the module's output reports that the command failed, by an error line or a plain line. Progress lines
// and warnings do not count.
bool is_complaint(std::string_view output);

} // namespace console
