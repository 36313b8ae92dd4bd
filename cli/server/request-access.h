// Checks if a client may send a request.
#pragma once

#include "cli/server/request-types.h"
#include "cli/service/access.h"

namespace cli
{

// `peer` is the client's user. Returns nothing if the client may send the request, otherwise the error for the client.
std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const request_type& type,
                                     const nlohmann::json& request);

} // namespace cli
