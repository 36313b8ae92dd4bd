// A ServiceRecord as answers carry it.
#pragma once

#include <nlohmann/json.hpp>

#include "host/fabric/embedded/subnet-views.h"

namespace console
{

// {"gid", "p_key", "address", "host_name", "lease"}.
nlohmann::json record_answer(const embedded::service_record_view& record);

} // namespace console
