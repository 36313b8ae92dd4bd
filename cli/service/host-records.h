// Checks the records of a host at the SA before the host's modules are loaded and after they are unloaded. The modules
// do not notice it. Call it from outside of the machine.
#pragma once

#include <string>
#include <vector>

#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// Deletes the remaining records of the host from the SA: those of its present GIDs and of GIDs under which it has
// registered in this run. Its modules are already unloaded. Returns a line for each GID with such a record. Fails with
// unreachable if the SA is silent, or if it cannot be asked although the host has registered. If the SA is silent, the
// call takes a second.
ats::result<std::vector<std::string>> delete_leftovers(world::host& host);

// Returns one line if the SA has a record of `address` under a GID of another host. Otherwise, or without an active
// port, returns "". Fails for the same reasons as delete_leftovers().
ats::result<std::string> other_holder(world::host& host, const std::string& address);

} // namespace cli
