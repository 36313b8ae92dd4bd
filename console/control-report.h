// The ports report that reading the control file of ats prints, taken apart again for `ats status`.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace console
{

using json = nlohmann::json;

// {"hcas": [{"name", "active_port" (or null), "ports": [{"port", "state", "gid", "lid", "address", "sent",
// "received"}]}], "verification": {"period", "skew"}}. Lines that are not of the report are passed over.
json parse_control_report(const std::string& text);

} // namespace console
