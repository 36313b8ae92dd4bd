// The records of a host at the SA, as the service checks them before the host's modules are loaded and after they have
// gone. The modules see nothing of it. Call from outside of the machine.
#pragma once

#include <string>
#include <vector>

#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// Deletes the records that the SA still holds of GIDs that the host has, or under which it has registered in this run.
// Its modules have gone. Returns a line for each GID with such a record. Error: unreachable, if the SA is silent or
// cannot be asked although the host has registered. A silent SA takes a second.
ats::result<std::vector<std::string>> delete_leftovers(world::host& host);

// One line if the SA holds a record of `address` under a GID that is not the host's; "" otherwise, and if
// no port is active. Error: as above.
ats::result<std::string> other_holder(world::host& host, const std::string& address);

} // namespace cli
