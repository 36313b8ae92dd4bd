// Refuses the requests of librdmacm programs (cli/acm/door.h) if the service cannot start. Without an answer, these
// programs would wait for ever.
#pragma once

#include <vector>

#include "cli/service/descriptor-store.h"

namespace acm
{

// Answers the unanswered requests with the status "not connected". `descriptors` are those of an earlier process, which
// the service manager has kept. The service manager goes on keeping the connections. It forgets the listening socket,
// so that new connections are refused.
void refuse_waiting_requests(std::vector<cli::kept_descriptor> descriptors);

} // namespace acm
