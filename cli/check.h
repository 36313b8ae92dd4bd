// `ats check`: says if this machine can run a host on its real ports, and what is missing.
#pragma once

#include <CLI/CLI.hpp>

namespace cli
{

// Adds the subcommand. Its callback prints, and sets the exit code or throws a failure.
void add_check(CLI::App& program, int& exit_code);

} // namespace cli
