// A ServiceRecord in answers and in tables.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "console/table.h"
#include "host/fabric/embedded/subnet-views.h"

namespace console
{

// Formats a P_Key or a status word, for example "0x0300".
std::string format_word(uint16_t word);

// Returns {"gid", "p_key", "address", "host_name", "lease"}.
nlohmann::json record_answer(const embedded::service_record_view& record);

// Makes a table from an array of such answers.
table_rows record_rows(const nlohmann::json& records);

} // namespace console
