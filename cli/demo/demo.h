// `ats demo`: the whole story on an embedded fabric of three hosts.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints, and stores its exit code or an error in `outcome`.
void add_demo(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
