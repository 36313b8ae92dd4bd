// The ports and ServiceRecords of an embedded subnet, for people and tests.
#pragma once

#include <cstdint>
#include <string>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

struct port_view {
    std::string host_name;
    std::string hca_name;
    int port;
    fabric::link_state state;
    uint16_t lid;              // 0 before the first link-up
    uint16_t sm_lid;           // the latest LID of the SM that the port has learned
    std::string gid;           // "0x" and 32 digits
    uint64_t lost_at_cuts = 0; // datagrams lost by subnet::cut_outbound() and subnet::cut_inbound()
};

// A ServiceRecord. The address and the host name are valid only in records of this service (records::is_host_record).
// The names are copies of the record's bytes, and can contain characters that are not printable.
struct service_record_view {
    std::string gid; // "0x" and 32 digits
    uint16_t p_key;
    std::string ipv4; // for example "10.0.0.1"
    std::string host_name;
    uint32_t lease_seconds; // the remaining lease, or records::infinite_lease
    uint64_t service_id;
    std::string service_name;
};

service_record_view view_of(const ib_service_record_v2_t& record);

// Formats a GID as "0x" and 32 digits.
std::string text_of(const fabric::gid_bytes& gid);

} // namespace embedded
