#include "host/fabric/embedded/subnet-views.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>

#include "host/fabric/embedded/subnet-hca.h"
#include "records/host-record.h"

namespace embedded
{

std::string text_of(const fabric::gid_bytes& gid)
{
    wire_gid_t wire;
    std::ranges::copy(gid, wire.bytes);
    return records::gid_text(from_wire(wire));
}

port_view view_of(const port_record& port)
{
    return {.host_name = port.owner->host,
            .hca_name = port.owner->name(),
            .port = port.number,
            .state = port.state,
            .lid = port.lid,
            .sm_lid = port.sm_lid,
            .gid = text_of(port.gid),
            .lost_at_cuts = port.lost_at_cuts};
}

service_record_view view_of(const ib_service_record_v2_t& record)
{
    const records::host_record host = records::decode(record);
    char ipv4[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &host.address, ipv4, sizeof ipv4);
    const char* const service_name = reinterpret_cast<const char*>(record.service_name);
    return {.gid = text_of(std::to_array(record.service_gid.bytes)),
            .p_key = host.p_key,
            .ipv4 = ipv4,
            .host_name = host.host_name,
            .lease_seconds = from_wire(record.service_lease),
            .service_id = from_wire(record.service_id),
            .service_name = {service_name, strnlen(service_name, sizeof record.service_name)}};
}

} // namespace embedded
