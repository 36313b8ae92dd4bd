// A ServiceRecord as answers carry it, and as tables show it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "console/table.h"
#include "host/fabric/embedded/subnet-views.h"

namespace console
{

// A P_Key or a status word, as in "0x0300".
std::string format_word(uint16_t word);

// {"gid", "p_key", "address", "host_name", "lease"}.
nlohmann::json record_answer(const embedded::service_record_view& record);

// The table of an array of such answers.
table_rows record_rows(const nlohmann::json& records);

} // namespace console
