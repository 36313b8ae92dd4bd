// The commands that send requests to a running service. (`sa show` and `sa remove` can also ask a real SA themselves.)
// Each command prints the answer, and stores its exit code or an error in `outcome`, which must outlive `program`.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

// Adds the commands that change nothing: status, resolve, reverse, path, metrics, log.
void add_queries(CLI::App& program, ats::result<int>& outcome);

// Adds the commands that can change something: flush, control, trace, set-name, set-address, link, sa.
void add_orders(CLI::App& program, ats::result<int>& outcome);

} // namespace cli
