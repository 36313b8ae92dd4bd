// Finds the address that a host name is registered with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/service/running-hosts.h"

namespace acm
{

// Asks the SA, and may take some seconds. The address is in network order. Nothing: the SA holds no record of the name.
// If several hosts have the name, the one with the lowest address counts. Error: the SA did not answer.
ats::result<std::optional<uint32_t>> address_of_name(cli::running_hosts& hosts, const std::string& name);

} // namespace acm
