// The subcommands of `ats`. Each adds itself to the program; its callback prints and sets the exit code, or throws a
// failure.
#pragma once

#include <CLI/CLI.hpp>

#include "cli/failure.h"

namespace cli
{

void add_demo(CLI::App& program, int& exit_code);
void add_run(CLI::App& program, int& exit_code);
void add_clients(CLI::App& program, int& exit_code);

} // namespace cli
