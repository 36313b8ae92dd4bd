// `ats demo`: shows the service at work with three hosts on an embedded fabric, in simulated time.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints the steps, and stores its exit code or an error in `outcome`, which must outlive
// `program`.
void add_demo(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
