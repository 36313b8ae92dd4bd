// Makes the JSON fields that describe an SA datagram or a ServiceRecord in a recording.
#pragma once

#include <nlohmann/json.hpp>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace recording
{

// Returns "method", "attribute", "tid" (the TransactionID) and "mask" (the component mask). A response also has
// "status". A datagram with a ServiceRecord also has "record". A datagram with a PathRecord also has "path".
nlohmann::ordered_json fields_of(const fabric::mad_bytes& mad);

// Returns "gid", "p_key", "address", "name" and "lease". A record that is not of ats (records::is_host_record) also has
// "service", its ServiceID.
nlohmann::ordered_json fields_of(const ib_service_record_v2_t& record);

} // namespace recording
