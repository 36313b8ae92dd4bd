// Opens a port and makes requests to its SA, with libibumad only. Benchmarks compare a whole host with programs that
// use such a bare port.
#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>

#include "host/fabric/umad/libibumad.h"
#include "records/host-record.h"
#include "tools/fabric/sa-request.h"

struct umad_buffer {
    ib_user_mad_t header;
    sa_mad_v2_t mad;
};

struct bare_port {
    int descriptor = -1; // negative if there is no active port, or if it cannot be used
    umad_port_t attributes{};
};

// Opens the first active port. The descriptor stays open until the program ends.
inline bare_port open_bare_port()
{
    bare_port port;
    if (umad_init() < 0 || umad_get_port(nullptr, 0, &port.attributes) < 0) return port;
    umad_release_port(&port.attributes); // frees only its P_Keys; the other fields do not change
    port.descriptor = umad_open_port(port.attributes.ca_name, port.attributes.portnum);
    if (umad_size() != sizeof(ib_user_mad_t)) port.descriptor = -1; // umad_size() is valid only after umad_open_port()
    return port;
}

// Fills `request` with a request to the port's SA about the record of `host`. The caller sets the TransactionID.
inline void prepare_request(umad_buffer& request, const bare_port& port, uint8_t method, uint64_t component_mask,
                            const records::host_record& host)
{
    std::memset(&request, 0, sizeof request);
    umad_set_addr(&request, static_cast<int>(port.attributes.sm_lid), 1, static_cast<int>(port.attributes.sm_sl),
                  static_cast<int>(0x80010000));
    request.mad = fabric_tools::make_request(method, SA_ATTR_SERVICE_RECORD, component_mask, records::encode(host));
}
