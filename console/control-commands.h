// The commands of the control file of ats, as `ats control` knows them: it refuses what the module would only mention
// in its log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/result.h"

namespace console
{

// The control file in a host's /proc tree. Reading it makes ats print the report of its ports.
constexpr const char* control_file = "dorvex/ats/control";

// The commands with their arguments and what each does, for people.
std::string list_control_commands();

// Joins these words to one line; each may hold several words. A line that the module would not understand is invalid:
// an unknown command, a wrong number of arguments, a word that is too long.
ats::result<std::string> control_line(const std::vector<std::string>& words);

// A line that a user of this command should read, "" for most.
std::string control_warning(const std::string& line);

// True if anything in this output of the module says that the command failed: an error, or a plain line. Progress and
// warnings do not.
bool is_complaint(std::string_view output);

} // namespace console
