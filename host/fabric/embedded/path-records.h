// Answers SubnAdmGet of PathRecords (IBA 15.2.5.16) from the ports of the subnet. Two active ports with a common
// partition have one path, in both directions. The LIDs and the P_Key are those of the ports; all other attributes are
// those of the subnet.
#pragma once

#include <cstdint>
#include <functional>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

struct port_record;

// Finds a port of the subnet in any state. Returns null if there is no such port.
struct port_directory {
    std::function<const port_record*(const fabric::gid_bytes&)> by_gid;
    std::function<const port_record*(uint16_t lid)> by_lid;
};

// The attributes of every path, in the standard's encodings.
struct path_attributes {
    uint8_t mtu = 4;              // 2048 bytes
    uint8_t rate = 3;             // 10 Gbit/s
    uint8_t packet_lifetime = 18; // about a second
};

// Serves a request with `record` and returns the status word. If the status is 0, `record` becomes the path. Otherwise
// `record` does not change.
uint16_t find_path(const port_directory& ports, const path_attributes& attributes, uint64_t component_mask,
                   ib_path_record_wire_t& record);

} // namespace embedded
