// `ats replay`: draws a recording of `ats run --record` as a page.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. It prints its results, and stores its exit code or an error in `outcome`.
void add_replay(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
