// Tells which requests are questions and which are orders.
#pragma once

#include <nlohmann/json.hpp>

#include "cli/service/access.h"

namespace cli
{

// Returns the error for a peer that may not send this request, or nothing if it may.
std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const nlohmann::json& request,
                                     const std::string& name);

} // namespace cli
