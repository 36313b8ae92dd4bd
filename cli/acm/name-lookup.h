// Finds the address with which a host name is registered.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/service/running-hosts.h"

namespace acm
{

// Asks the SA, which may take some seconds. The address is in network order. The result is empty if the SA has no
// record of the name. If several hosts have the name, the lowest address is returned. Fails if the SA did not answer.
ats::result<std::optional<uint32_t>> address_of_name(cli::running_hosts& hosts, const std::string& name);

} // namespace acm
