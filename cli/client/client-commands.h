// The commands that ask a running service.
#pragma once

#include <CLI/CLI.hpp>

namespace cli
{

// Commands that look: status, resolve, reverse, log.
void add_queries(CLI::App& program, int& exit_code);

// Commands that change something: flush, control, trace, set-name, set-address, link, sa.
void add_orders(CLI::App& program, int& exit_code);

} // namespace cli
