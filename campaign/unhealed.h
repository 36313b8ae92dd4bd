// Faults that never heal: ports that lose all datagrams for good, although their links stay up. The hosts concerned are
// cut off from the SA. All others must register and find each other as if nothing had happened.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/plan.h"

namespace campaign
{

struct tested_fabric;

// A fault that has begun.
struct unhealed_fault {
    uint32_t kind;
    struct cut_port {
        size_t number;        // in subnet::ports()
        uint64_t lost_before; // datagrams that it had lost
    };
    std::vector<cut_port> ports;
};

// At most so many of the hosts are cut off. A fabric has 2 hosts or more.
constexpr uint64_t most_hosts_cut(uint64_t hosts)
{
    return hosts / 2;
}

// Each is the beginning of an act.
void cut_host_off(tested_fabric& fabric, const act& act);
void cut_port_off(tested_fabric& fabric, const act& act);
void cut_one_way(tested_fabric& fabric, const act& act);
void cut_partition_off(tested_fabric& fabric, const act& act); // of neighbours, from the act's host on

// Lets every host show that the cuts concern only the ports that are cut off. The beginning of an act, too.
void check_the_rest(tested_fabric& fabric, const act& act);

// Counts the datagrams that each fault has lost for its kind.
void count_unhealed_faults(tested_fabric& fabric);

} // namespace campaign
