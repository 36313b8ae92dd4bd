// The plan of a host of this service: its modules and their parameters, and the files and the registry key of the
// module ats. Only this file names these modules; the layers below can load any modules.
#pragma once

#include <string>
#include <vector>

#include "host/stack/registry.h"
#include "host/world/host.h"
#include "logger.h"

namespace console
{

// A path in the /proc tree of a host. Reading the control file makes ats print the report of its ports.
constexpr const char* control_file = "dorvex/ats/control";
constexpr const char* version_file = "dorvex/ats/version";

// The registry key of the trace level of ats.
constexpr const char* registry_key = "dorvex/modules/ats";
constexpr const char* trace_level_name = "debug-level";

// The registry's value for a trace level, from ZR_PANIC (nothing) to ZR_FUNC (everything).
stack::registry_value trace_setting(int level);

// IBAT, UCM and ats for a host with that name and IPv4 address. They are in loading order, because ats binds to the
// other two.
std::vector<world::module_plan> usual_modules(const std::string& host_name, const std::string& ipv4);

// A host with these modules and one single-port HCA.
world::host_plan usual_host(const std::string& name, const std::string& ipv4, int trace_level = ZR_ERROR);

} // namespace console
