// Refuses the waiting requests of programs if the service cannot start. The programs then stop waiting.
#pragma once

#include <vector>

#include "cli/service/descriptor-store.h"

namespace acm
{

// Answers the waiting requests with "not connected". `kept` has the descriptors of an earlier process. The service
// manager keeps the connections. It forgets the listener, so new connections are refused.
void turn_away(std::vector<cli::kept_descriptor> kept);

} // namespace acm
