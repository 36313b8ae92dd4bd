// The fields of SA datagrams and of ServiceRecords, as recordings hold them.
#pragma once

#include <nlohmann/json.hpp>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace recording
{

// "method", "attribute" and "tid"; of a response "status"; of a ServiceRecord "mask" and "record", of a PathRecord
// "mask" and "path".
nlohmann::ordered_json fields_of(const fabric::mad_bytes& mad);

// "gid", "p_key", "address", "name", "lease"; "service" if the record is not one that hosts exchange.
nlohmann::ordered_json fields_of(const ib_service_record_v2_t& record);

} // namespace recording
