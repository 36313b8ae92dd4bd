// Finds the address with which a host name is registered.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/service/running-hosts.h"

namespace acm
{

// Asks the SA, which may take some seconds. Returns the address in network order. Returns no address if the SA has no
// record with the name. If several hosts have the name, returns the address of one of them: on a real fabric the lowest
// address, on an embedded fabric the one with the lowest GID. Fails if the SA cannot be asked or does not answer.
ats::result<std::optional<uint32_t>> address_of_name(cli::running_hosts& hosts, const std::string& name);

} // namespace acm
