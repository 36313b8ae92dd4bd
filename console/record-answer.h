// Formats a ServiceRecord as JSON for answers of the service, and as a row of a table for people.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "console/table.h"
#include "host/fabric/embedded/subnet-views.h"

namespace console
{

// Formats a P_Key or a MAD's status word, for example "0x0300".
std::string format_word(uint16_t word);

// Returns {"gid", "p_key", "address", "host_name", "lease"}; all values are texts.
nlohmann::json record_answer(const embedded::service_record_view& record);

// Makes a table from a JSON array of results of record_answer().
table_rows record_rows(const nlohmann::json& records);

} // namespace console
