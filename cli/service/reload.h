// Reloads the configuration of a running service, and applies the changed settings.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/service/running-hosts.h"
#include "cli/service/world-config.h"
#include "host/result.h"

namespace cli
{

// The calls by which a reload changes the service.
struct reload_calls {
    // Makes the service's doors use these rules and limits from now on. If it fails, the rules and limits are in use,
    // but the permissions of a socket's file could not be changed.
    std::function<ats::result<>(const access_rules&, const service_limits&)> set_rules;
    std::function<bool()> may_go_on; // false if a signal ends the service; then no more hosts are changed
    // Receives a line for the administrator, and the name of the line's host or "".
    std::function<void(const std::string& line, const std::string& host)> print;
};

// Applies the settings of `file` that differ from those of `current`, and prints a line for each. Stores the applied
// settings in `current`. For settings that need a restart, it only prints a line. The next reload tries failed changes
// again. Call it from outside of the machines. Waits for the SA if a host's name or address changes.
void reload(running_hosts& hosts, world_config& current, const world_config& file, const reload_calls& calls);

} // namespace cli
