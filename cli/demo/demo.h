// `ats demo`: the whole story on an embedded fabric of three hosts.
#pragma once

#include <CLI/CLI.hpp>

namespace cli
{

// Adds the subcommand. Its callback prints, and sets the exit code or throws a failure.
void add_demo(CLI::App& program, int& exit_code);

} // namespace cli
