// `ats replay`: draws a recording of `ats run --record` as an HTML page.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the subcommand. The subcommand prints the name of the page, and stores its exit code or an error in `outcome`,
// which must outlive `program`.
void add_replay(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
