// The questions of a command line that takes many.
#pragma once

#include <string>
#include <vector>

#include "host/result.h"

namespace cli
{

// Returns the arguments. Replaces an argument "-" by the lines of stdin, and reads stdin to its end for this. Ignores
// empty lines, the blanks around a question, and comments: '#' begins a comment at the start of a line or after a
// blank. Fails (invalid) if stdin cannot be read or has an endless line, or if there is no question at all. `argument`
// is the name of an argument in these errors.
ats::result<std::vector<std::string>> with_questions_of_stdin(const std::vector<std::string>& arguments,
                                                              const std::string& argument);

} // namespace cli
