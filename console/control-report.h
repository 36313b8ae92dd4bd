// Parses the report that ats prints about its ports when its control file is read. `ats status` shows the result.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace console
{

using json = nlohmann::json;

// Returns {"hcas": [{"name", "active_port" (or null), "ports": [{"port", "state", "gid", "lid", "address", "sent",
// "received"}]}], "verification": {"period" (seconds), "skew" (percent)}}. Leaves out a value that the report does not
// contain. Ignores all other lines.
json parse_control_report(const std::string& text);

} // namespace console
