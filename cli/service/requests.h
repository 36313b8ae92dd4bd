// What a client can ask of the running hosts, as JSON: one function a request. An answer is an object; a request that
// cannot be carried out throws a failure.
#pragma once

#include <nlohmann/json.hpp>

#include "cli/service/running-hosts.h"

namespace cli
{

using json = nlohmann::json;

// Carries out {"request": NAME, ...} and returns its answer. Unknown names are refused.
json answer_request(running_hosts& hosts, const json& request);

// {"host"}: HCAs, ports, verification, IBAT's cache and counters of that host, or of all.
json answer_status(running_hosts& hosts, const json& request);

// {"address" or "gid", "cached", "verify"}: what it resolves to, who said so, and how long that took.
json answer_resolve(running_hosts& hosts, const json& request);
json answer_reverse(running_hosts& hosts, const json& request);

// {"what": an address, a GID or ""}: IBAT forgets its entry, or all of them.
json answer_flush(running_hosts& hosts, const json& request);

// {"name"}: the records of that host name, as the SA of the embedded fabric tells them: {"matches"}. {"real": true} on
// a real fabric, whose SA the client asks itself.
json answer_resolve_name(running_hosts& hosts, const json& request);

// The answer of an order that was carried out.
json done(const std::string& what);

} // namespace cli
