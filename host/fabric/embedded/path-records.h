// Answers SubnAdmGet of PathRecords (IBA 15.2.5.16) from the ports of the subnet. There is one path between two active
// ports with matching P_Keys (IBA 10.9.3), and this path is reversible. Its GIDs and LIDs are those of the ports, and
// its P_Key is that of the source. All its other attributes are the same for every path of the subnet.
#pragma once

#include <cstdint>
#include <functional>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

struct port_record;

// Functions that find a port of the subnet in any state. They return null if there is no such port.
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

// Finds the path that a SubnAdmGet asks for. `record` and `component_mask` are those of the request. Returns the status
// word of the answer. If the status is 0, `record` becomes the path. Otherwise `record` does not change.
uint16_t find_path(const port_directory& ports, const path_attributes& attributes, uint64_t component_mask,
                   ib_path_record_wire_t& record);

} // namespace embedded
