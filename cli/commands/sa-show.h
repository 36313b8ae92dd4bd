// `ats sa show`: lists the records that the SA holds. The service reports those of an embedded fabric. This process
// itself asks the SA of a real fabric, with or without a service on this machine.
#pragma once

#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/result.h"

namespace cli
{

void add_sa_show(CLI::App& sa, ats::result<int>& outcome);

// Asks the SA of this machine's real fabric for the records of a host name. Returns an array of records in the form
// that the service reports.
ats::result<nlohmann::json> real_records_of(const std::string& host_name);

} // namespace cli
