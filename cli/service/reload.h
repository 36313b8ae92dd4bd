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

// Functions of the service that reload() calls.
struct reload_calls {
    // Makes the service use these rules and limits from now on. If it fails, the rules and limits are in use, but the
    // permissions of a socket's file could not be changed.
    std::function<ats::result<>(const access_rules&, const service_limits&)> set_rules;
    // Returns false after a signal that ends the service. reload() then makes no more changes to hosts.
    std::function<bool()> may_go_on;
    // Prints a line for the administrator. `host` is the name of the host that the line is about, or "".
    std::function<void(const std::string& line, const std::string& host)> print;
};

// Compares `file`, the new configuration, with `current`. Applies each setting that differs, prints a line about it,
// and stores it in `current`. A change that fails is not stored, so the next reload tries it again, or orders the old
// value again if the file has it back. For a setting that needs a restart, only prints a line. Waits for the SA if a
// host's name or address changes. The calling thread must not be a task of a machine.
void reload(running_hosts& hosts, world_config& current, const world_config& file, const reload_calls& calls);

} // namespace cli
