// `ats sa show`: the records that the SA holds. That of an embedded fabric tells them through the service; that of a
// real fabric is asked by this process itself, whether a service runs on this machine or not.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>

namespace cli
{

void add_sa_show(CLI::App& sa, int& exit_code);

// The records of a host name at the SA of this machine's real fabric, as answers carry them. Throws a failure when it
// cannot be asked.
nlohmann::json real_records_of(const std::string& host_name);

} // namespace cli
