// The commands of the control file of ats. `ats control` refuses a wrong command, about which the module would only
// write a line to its log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/result.h"

namespace console
{

// A table of the commands, their arguments and effects.
std::string list_control_commands();

// Joins these words to one line; each may hold several words. A line that the module would not understand is invalid:
// an unknown command, a wrong number of arguments, a word that is too long.
ats::result<std::string> control_line(const std::vector<std::string>& words);

// A warning about the effect of this command line; "" for most.
std::string control_warning(const std::string& line);

// True if the module's output reports that the command failed: it holds an error line or a plain line. Progress lines
// and warnings do not count.
bool is_complaint(std::string_view output);

} // namespace console
