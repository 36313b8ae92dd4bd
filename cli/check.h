// `ats check`: reports whether this machine can run a host on its real ports. Lists the missing things, and tells the
// user how to get them.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints its findings, and stores its exit code or an error in `outcome`, which must outlive
// `program`.
void add_check(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
