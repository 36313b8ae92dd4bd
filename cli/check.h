// `ats check`: reports if this machine can run a host on its real ports. It lists what is missing and how to correct
// it.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints its findings, and stores its exit code or an error in `outcome`.
void add_check(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
