// The checks of `ats check` about the service: its configuration, its doors and the limits of its process.
#pragma once

#include <optional>
#include <string>

#include "cli/check-findings.h"
#include "cli/service/world-config.h"

namespace cli
{

// Reads the file as `ats run --config` does, and starts nothing. Empty: it is wrong, and a finding says why.
std::optional<world_config> check_config(findings& findings, const std::string& file);

// Can this user make the sockets of such a service? `socket` is where clients are served.
void check_doors(findings& findings, const world_config& config, const std::string& socket);

// Are the limits of a process that this user starts high enough for the hosts?
void check_limits(findings& findings, const world_config& config);

} // namespace cli
