// Faults that never heal: from some tick on, a port loses all datagrams in one direction or in both, although its link
// stays up. The host cannot talk to the SA through this port. All other hosts must register and find each other.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/plan.h"

namespace campaign
{

struct tested_fabric;

// A fault that has begun.
struct unhealed_fault {
    uint32_t kind; // index into act_kinds
    struct cut_port {
        size_t number;        // index into subnet::ports()
        uint64_t lost_before; // number of datagrams that the port had lost at cuts before this fault
    };
    std::vector<cut_port> ports;
};

// Returns the maximum number of hosts that cut_partition_off() cuts off. A fabric has at least 2 hosts, so at least one
// stays healthy.
constexpr uint64_t most_hosts_cut(uint64_t hosts)
{
    return hosts / 2;
}

// Each function cuts ports off for good. cut_partition_off() cuts off all ports of 1 to most_hosts_cut() hosts. These
// hosts have consecutive numbers, beginning with that of the act's host. After the last host of the fabric comes the
// first.
void cut_host_off(tested_fabric& fabric, const act& act); // all ports of a host
void cut_port_off(tested_fabric& fabric, const act& act); // one port
void cut_one_way(tested_fabric& fabric, const act& act);  // one direction of a port
void cut_partition_off(tested_fabric& fabric, const act& act);

// Starts a task on every host. Each task checks the records of the host's HCAs that have no port cut off. If the host
// has no port cut off at all, its task also finds another such host.
void check_the_rest(tested_fabric& fabric, const act& act);

// For each fault, counts the datagrams that its ports have lost at cuts since the fault began. Adds this number to the
// marks of the fault's kind of act.
void count_unhealed_faults(tested_fabric& fabric);

} // namespace campaign
