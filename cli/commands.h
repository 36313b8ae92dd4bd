// The subcommands of `ats`. Each adds itself to the program; its callback prints and sets the exit code, or throws a
// failure.
#pragma once

#include <CLI/CLI.hpp>

#include "cli/usage.h"
#include "console/failure.h"

namespace cli
{

// --modules; `folder` holds the default.
inline void add_module_folder_option(CLI::App& command, std::string& folder)
{
    command.add_option("--modules", folder, "The folder of ats.so, ibat.so and ucm.so (default: " + folder + ")")
        ->check(existing_folder())
        ->option_text("DIR");
}

void add_demo(CLI::App& program, int& exit_code);
void add_run(CLI::App& program, int& exit_code);
void add_check(CLI::App& program, int& exit_code);
void add_clients(CLI::App& program, int& exit_code);

} // namespace cli
