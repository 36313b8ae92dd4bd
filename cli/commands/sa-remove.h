// `ats sa remove`: removes the records of a GID from the SA of a real fabric, for example those of an HCA that is gone.
// This process itself asks the SA.
#pragma once

#include <CLI/CLI.hpp>

#include "host/result.h"

namespace cli
{

void add_sa_remove(CLI::App& sa, ats::result<int>& outcome);

} // namespace cli
