// Looks for records of a host's address at the SA before the host's modules are loaded, and deletes the host's records
// after the modules are unloaded. The service asks the SA itself, through the host's ports. Only one thread at a time
// may call these functions for a host. This thread must not be a task of a machine.
#pragma once

#include <string>
#include <vector>

#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// Deletes the records that the host has left at the SA. Call it after the host's modules are unloaded. Deletes the
// records of all GIDs that the host's ports have now, and of all GIDs under which the host has registered since the
// service started. Returns a line for each GID that had a record, or for which the SA returned an error. Fails
// (unreachable) if the SA does not answer within a second. If no port is active, the SA cannot be asked: this is also
// an error if the host has registered.
ats::result<std::vector<std::string>> delete_leftovers(world::host& host);

// Returns one line if the SA has a record of `address` under a GID of another host, or several records of `address`.
// Otherwise, or without an active port, returns "". Fails (unreachable) if the SA does not answer within a second.
ats::result<std::string> other_holder(world::host& host, const std::string& address);

} // namespace cli
