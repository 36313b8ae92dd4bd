// `ats sa show`: lists the records of the SA. The service reports the records of an embedded fabric. On a real fabric,
// this process itself asks the SA, with or without a service on this machine.
#pragma once

#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/result.h"

namespace cli
{

void add_sa_show(CLI::App& sa, ats::result<int>& outcome);

// Asks the SA of this machine's real fabric for the records of a host name. Returns an array of records in the same
// form as the service. Fails if no port is active, or if the SA does not answer or refuses.
ats::result<nlohmann::json> real_records_of(const std::string& host_name);

} // namespace cli
