// The checks of `ats check` about the service: its configuration, its doors (the sockets for clients) and the limits of
// its process. Each check adds its results to `findings`.
#pragma once

#include <optional>
#include <string>

#include "cli/check-findings.h"
#include "cli/service/world-config.h"

namespace cli
{

// Reads the configuration in `file` like `ats run --config`, with these options. Returns nothing if the file has an
// error; a finding then explains the error.
std::optional<world_config> check_config(findings& findings, const std::string& file, const identity_options& identity);

// Checks that this user can create the sockets of a service with this configuration. `socket` is the path of the socket
// for clients.
void check_doors(findings& findings, const world_config& config, const std::string& socket);

// Checks that this user can write the metrics file, if the configuration has one. A problem is only a note, because the
// service works without the file.
void check_metrics_folder(findings& findings, const world_config& config);

// Checks that the limits of open files and memory mappings are high enough for the hosts.
void check_limits(findings& findings, const world_config& config);

} // namespace cli
