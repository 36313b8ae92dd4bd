// The checks of `ats check` about the service: its configuration, its doors and the limits of its process.
#pragma once

#include <optional>
#include <string>

#include "cli/check-findings.h"
#include "cli/service/world-config.h"

namespace cli
{

// Reads the file in the same way as `ats run --config`, and starts nothing. The result is empty if the file has an
// error; a finding then explains it.
std::optional<world_config> check_config(findings& findings, const std::string& file);

// Checks that this user can create the sockets of such a service. `socket` is the socket for clients.
void check_doors(findings& findings, const world_config& config, const std::string& socket);

// Checks that this user can write the metrics file of such a service, if it is configured. The service works without.
void check_metrics_folder(findings& findings, const world_config& config);

// Checks that the process limits of this user are high enough for the hosts.
void check_limits(findings& findings, const world_config& config);

} // namespace cli
