// Faults that never heal: ports that lose all datagrams for good, although their links stay up. Such a fault cuts the
// port's host off from the SA. All other hosts must register and find each other normally.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/plan.h"

namespace campaign
{

struct tested_fabric;

// A fault that has started.
struct unhealed_fault {
    uint32_t kind;
    struct cut_port {
        size_t number;        // index in subnet::ports()
        uint64_t lost_before; // number of datagrams that the port had already lost at earlier cuts
    };
    std::vector<cut_port> ports;
};

// The maximum number of hosts that are cut off. A fabric has at least 2 hosts.
constexpr uint64_t most_hosts_cut(uint64_t hosts)
{
    return hosts / 2;
}

// Each function starts an act, which cuts ports off for good.
void cut_host_off(tested_fabric& fabric, const act& act);      // all ports of a host
void cut_port_off(tested_fabric& fabric, const act& act);      // one port
void cut_one_way(tested_fabric& fabric, const act& act);       // one direction of a port
void cut_partition_off(tested_fabric& fabric, const act& act); // all ports of neighbours, the act's host first

// Starts an act, which checks on every host that the cuts affect only the ports that are cut off.
void check_the_rest(tested_fabric& fabric, const act& act);

// Counts the datagrams that each fault has lost, as effects of its kind.
void count_unhealed_faults(tested_fabric& fabric);

} // namespace campaign
