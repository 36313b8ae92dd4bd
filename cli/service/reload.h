// Changes the settings of a running service to those of its configuration, which was read again.
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
    // The service's doors admit users by these rules and limits from now on. Error: the limits and rules hold, but the
    // file of a socket has not got the permissions that they ask for.
    std::function<ats::result<>(const access_rules&, const service_limits&)> set_rules;
    std::function<bool()> may_go_on; // false: the service is told to end, so no host is changed any more
    // Takes a line for the administrator, and the name of the host that it is about, or "".
    std::function<void(const std::string& line, const std::string& host)> print;
};

// Gives `hosts` and doors the settings of `file` that differ from those of `running`, and prints a line for each.
// `running` receives what has been changed. Of what needs a restart, a line says so. What could not be changed is
// tried again by the next reload. Call from outside of the machines; waits for the SA if a host's name or address
// changes.
void reload(running_hosts& hosts, world_config& running, const world_config& file, const reload_calls& calls);

} // namespace cli
