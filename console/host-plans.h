// Makes the plan of a host of this service: the modules of the host and their parameters. Also names the /proc files
// and the registry key of the module ats. The code that runs hosts takes the modules' names from a plan. Therefore it
// can run other modules, too.
#pragma once

#include <string>
#include <vector>

#include "host/stack/registry.h"
#include "host/world/host.h"
#include "logger.h"

namespace console
{

// Paths in the /proc tree of a host. When a program reads the control file, ats prints a report of the host's ports to
// the log.
constexpr const char* control_file = "dorvex/ats/control";
constexpr const char* version_file = "dorvex/ats/version";

// The registry stores the trace level of ats under this key, in the value with this name.
constexpr const char* registry_key = "dorvex/modules/ats";
constexpr const char* trace_level_name = "debug-level";

// Returns the registry value that sets the trace level of ats. `level` is from ZR_PANIC (ats traces nothing) to ZR_FUNC
// (ats traces everything).
stack::registry_value trace_setting(int level);

// Returns the modules of a host with that name and IPv4 address, in loading order: IBAT, UCM, ats. The module ats is
// the last, because it binds to IBAT and UCM.
std::vector<world::module_plan> usual_modules(const std::string& host_name, const std::string& ipv4);

// Returns the plan of a host with the usual modules and one HCA, which has one port.
world::host_plan usual_host(const std::string& name, const std::string& ipv4, int trace_level = ZR_ERROR);

} // namespace console
