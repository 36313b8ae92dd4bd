// The requests of clients, as JSON: one function for each request. docs/protocol.md describes requests and answers.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "cli/service/running-hosts.h"
#include "host/result.h"

namespace cli
{

using json = nlohmann::json;

// Any thread outside of the machines may call these functions, several at a time. They may sleep until the SA answers.
// An answer is an object. A field that is missing or has another type throws a json::exception; other errors are
// results.

// Executes {"request": NAME, ...}. An unknown name is invalid.
ats::result<json> answer_request(running_hosts& hosts, const json& request);

// {"host"}: HCAs, ports, verification, and IBAT's cache and counters, of that host or of all hosts.
ats::result<json> answer_status(running_hosts& hosts, const json& request);

// {"host", "address", "verify"}: the GID of the address, its source, and the result of the verification. For {"name"}
// see below. The server itself answers lookups without verification.
ats::result<json> answer_resolve(running_hosts& hosts, const json& request);

// {"name"}: returns {"matches"}, the records with that host name at the SA of the embedded fabric. Returns {"real":
// true} on a real fabric, where the client asks the SA itself.
ats::result<json> answer_resolve_name(running_hosts& hosts, const json& request);

// {"host", "gid", "verify"}: the address of the GID, its source, and the result of the verification.
ats::result<json> answer_reverse(running_hosts& hosts, const json& request);

// {"host", "what"}: IBAT drops its cache entry of that address or GID, or all entries for "".
ats::result<json> answer_flush(running_hosts& hosts, const json& request);

// {"host", "direction": "up" or "down", "hca", "port"}: changes a link of the embedded fabric.
ats::result<json> answer_link(running_hosts& hosts, const json& request);

// {"action": "show", "forget", "silence" or "status"} and its argument: shows the SA of the embedded fabric, or makes
// it misbehave.
ats::result<json> answer_sa(running_hosts& hosts, const json& request);

// The host that {"host"} names, or the first one if it names none. Never null.
ats::result<world::host*> find_host(running_hosts& hosts, const json& request);

// The answer of a successful order. `sentence` says what was done.
json done(const std::string& sentence);

} // namespace cli
