// Encodes IBAT's requests for paths, and decodes the SA's answers (PathRecord, IBA 15.2.5.16). All functions are pure.
#pragma once

#include "ibat.h"
#include "sa-mads.h"

namespace ibat
{

// The port on which paths begin.
struct source_port {
    uint32_t number;
    kq_gid_t gid;
    kq_lid_t lid;
    kq_lid_t sm_lid;
    uint8_t sm_sl;
    kq_p_key_t p_key;

    bool operator==(const source_port&) const = default;
};

// Returns a request for one reversible path from `source` to `destination`, with the P_Key of `source`. `serial`
// becomes the TransactionID; it has at most 24 bits, because GSI sets the high bits. All fields are in wire order,
// except the AttributeID: GSI expects it in host order and converts it.
sa_mad_v2_t path_request_mad(const source_port& source, const kq_gid_t& destination, uint32_t serial);

// Returns the path in an answer, in host order.
ib_path_record_v2_t path_in(const sa_mad_v2_t& mad);

} // namespace ibat
