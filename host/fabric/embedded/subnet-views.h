// What an embedded subnet holds, in the form in which people and tests read it.
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
    uint16_t lid;    // 0 until the link first came up
    uint16_t sm_lid; // as the port last learned it
    std::string gid;
};

// A ServiceRecord of this service; of another one's, the address and the host name mean nothing. The names are the
// bytes that the record holds, whatever they are.
struct service_record_view {
    std::string gid; // "0x" and 32 digits
    uint16_t p_key;
    std::string ipv4; // the last four bytes of ServiceData8, dotted
    std::string host_name;
    uint32_t lease_seconds; // what remains; UINT32_MAX: for ever
    uint64_t service_id;
    std::string service_name;
};

service_record_view view_of(const ib_service_record_v2_t& record);
std::string text_of(const fabric::gid_bytes& gid);

} // namespace embedded
