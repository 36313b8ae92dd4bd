// Which requests are questions and which are orders.
#pragma once

#include <nlohmann/json.hpp>

#include "cli/service/access.h"

namespace cli
{

// The error of a peer that may not ask this; nothing if it may.
std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const nlohmann::json& request,
                                     const std::string& name);

} // namespace cli
