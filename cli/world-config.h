// The configuration of `ats run`: which hosts stand on the embedded fabric.
#pragma once

#include <string>
#include <vector>

#include "host/world/host.h"

namespace cli
{

struct world_config {
    std::vector<world::host_plan> hosts;
};

// `count` hosts node1, node2, ... with one one-port HCA each and the addresses 10.0.0.1 onwards.
world_config numbered_hosts(int count);

// Reads a TOML file of [[host]] tables; ats-run(8) lists the keys. Unknown keys, wrong types, names used twice and
// numbers out of range are refused with a failure: "FILE:LINE: what is wrong and what would be right".
world_config read_world_config(const std::string& path);

} // namespace cli
