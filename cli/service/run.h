// `ats run`: keeps hosts running and serves their clients until a signal comes.
#pragma once

#include <CLI/CLI.hpp>

namespace cli
{

// Adds the subcommand. Its callback prints, and sets the exit code or throws a failure.
void add_run(CLI::App& program, int& exit_code);

} // namespace cli
