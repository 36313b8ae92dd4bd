// Requests about the embedded fabric itself.
#pragma once

#include "cli/service/requests.h"

namespace cli
{

json answer_link(site& at, const json& request); // {"direction", "hca", "port"}
json answer_sa(site& at, const json& request); // {"action": "show" | "forget" | "silence" | "status"} and its argument

} // namespace cli
