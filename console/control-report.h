// Parses the report of its ports that ats prints when its control file is read. `ats status` shows the result.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace console
{

using json = nlohmann::json;

// {"hcas": [{"name", "active_port" (or null), "ports": [{"port", "state", "gid", "lid", "address", "sent",
// "received"}]}], "verification": {"period", "skew"}}. Other lines are ignored.
json parse_control_report(const std::string& text);

} // namespace console
