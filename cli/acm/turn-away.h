// Frees the programs that wait for a service whose start has failed.
#pragma once

#include <vector>

#include "cli/service/descriptor-store.h"

namespace acm
{

// Answers the requests that wait on `kept`, the descriptors of an earlier process, with "not connected". The
// connections stay with the service manager. Nobody listens for new ones any more.
void turn_away(std::vector<cli::kept_descriptor> kept);

} // namespace acm
