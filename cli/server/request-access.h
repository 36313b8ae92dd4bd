// Checks if a client may send a request. A request is either a question or an order. The access rules say which users
// may ask questions, and which users may give orders.
#pragma once

#include <nlohmann/json.hpp>

#include "cli/service/access.h"

namespace cli
{

// `peer` is the client's user, and `name` the name of the request. Returns nothing if the client may send the request,
// otherwise the error for the client.
std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const nlohmann::json& request,
                                     const std::string& name);

} // namespace cli
