// The fields of SA datagrams and of ServiceRecords in a recording.
#pragma once

#include <nlohmann/json.hpp>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace recording
{

// Returns "method", "attribute" and "tid". A response also has "status". A ServiceRecord has "mask" and "record", a
// PathRecord has "mask" and "path".
nlohmann::ordered_json fields_of(const fabric::mad_bytes& mad);

// Returns "gid", "p_key", "address", "name" and "lease". A record of another service also has "service".
nlohmann::ordered_json fields_of(const ib_service_record_v2_t& record);

} // namespace recording
