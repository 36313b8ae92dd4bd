// `ats sa show`: lists the records of the SA. The service reports the records of an embedded fabric. On a real fabric,
// this process itself asks the SA, with or without a service on this machine.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

void add_sa_show(CLI::App& sa, ats::result<int>& outcome);

} // namespace cli
