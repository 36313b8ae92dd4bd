// Refuses the waiting requests of programs when the service cannot start, so that the programs stop waiting.
#pragma once

#include <vector>

#include "cli/service/descriptor-store.h"

namespace acm
{

// Answers the waiting requests with "not connected". `kept` holds the descriptors of an earlier process. The service
// manager keeps the connections. The listener is closed, so that new connections are refused.
void turn_away(std::vector<cli::kept_descriptor> kept);

} // namespace acm
