// The plan of a host of this service: its modules with their parameters, the files and the registry key of the module
// ats. The layers below load any modules; this is the one place that names these.
#pragma once

#include <string>
#include <vector>

#include "host/stack/registry.h"
#include "host/world/host.h"
#include "logger.h"

namespace console
{

// In the /proc tree of a host. Reading the control file makes ats print the report of its ports.
constexpr const char* control_file = "dorvex/ats/control";
constexpr const char* version_file = "dorvex/ats/version";

// Where ats finds its trace level in the registry.
constexpr const char* registry_key = "dorvex/modules/ats";
constexpr const char* trace_level_name = "debug-level";

// The registry's value for a trace level, from ZR_PANIC (nothing) to ZR_FUNC (everything).
stack::registry_value trace_setting(int level);

// IBAT, UCM and ats for a host of that name and IPv4 address, in loading order: ats binds to the two before it.
std::vector<world::module_plan> usual_modules(const std::string& host_name, const std::string& ipv4);

// A host with these modules and one HCA of one port.
world::host_plan usual_host(const std::string& name, const std::string& ipv4, int trace_level = ZR_ERROR);

} // namespace console
