// `ats run`: runs hosts in real time and serves their clients until a signal comes.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints lines for the administrator, and stores its exit code or an error in `outcome`, which
// must outlive `program`.
void add_run(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
