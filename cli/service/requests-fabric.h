// Requests about the embedded fabric itself.
#pragma once

#include "cli/service/requests.h"

namespace cli
{

json answer_link(running_hosts& hosts, const json& request); // {"direction", "hca", "port"}
json answer_sa(running_hosts& hosts,
               const json& request); // {"action": "show" | "forget" | "silence" | "status"} and its argument

} // namespace cli
