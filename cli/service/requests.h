// Answers the requests of clients, with one function for each request. Requests and answers are JSON objects;
// docs/protocol.md describes them. A comment such as {"host", "gid"} lists the fields of the request.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "cli/service/running-hosts.h"
#include "host/result.h"

namespace cli
{

using json = nlohmann::json;

// Any threads that are not tasks of a machine may call these functions, also at the same time. The functions may sleep
// until the SA answers. They throw a json::exception if a field of the request is missing or has a wrong type. They
// return all other errors.

// {"host"}: HCAs, ports, registrations, verification, and IBAT's cache and counters, of that host or of all hosts.
ats::result<json> answer_status(running_hosts& hosts, const json& request);

// {"host", "address"}: the GID of the address, the source of the answer, and the result of the verification at the SA.
// A request with "name" is answered by answer_resolve_name(). cli/server itself answers requests that have neither
// "verify" nor "name".
ats::result<json> answer_resolve(running_hosts& hosts, const json& request);

// Answers {"name"} of "resolve": "matches" are the records with that host name at the SA. If several records match,
// only an embedded fabric has them all; on a real fabric "status" is then "failed", with a "reason".
json answer_resolve_name(running_hosts& hosts, const std::string& host_name);

// {"host", "gid"}: the address of the GID, the source of the answer, and the result of the verification at the SA.
// cli/server calls this function only for lookups with "verify".
ats::result<json> answer_reverse(running_hosts& hosts, const json& request);

// {"host", "what"}: IBAT drops its cache entry of the address or GID in "what". If "what" is "", IBAT drops all entries
// except the host's own mapping.
ats::result<json> answer_flush(running_hosts& hosts, const json& request);

// {"host", "command"}: writes a command to the control file of ats. Returns the text that ats printed meanwhile.
ats::result<json> answer_control(running_hosts& hosts, const json& request);

// {"level", "host"}: sets the trace level of ats on that host, or on all hosts.
ats::result<json> answer_trace(running_hosts& hosts, const json& request);

// {"name", "host", "no_wait"}: changes the registered name of a host.
ats::result<json> answer_set_name(running_hosts& hosts, const json& request);

// {"address", "host", "no_wait"}: changes the registered address of a host.
ats::result<json> answer_set_address(running_hosts& hosts, const json& request);

// {"host", "direction": "up" or "down", "hca", "port"}: changes a link of the embedded fabric.
ats::result<json> answer_link(running_hosts& hosts, const json& request);

// {"action": "show", "forget", "silence" or "status"} and the argument of the action: shows the records of the embedded
// SA, deletes records, or makes the SA misbehave.
ats::result<json> answer_sa(running_hosts& hosts, const json& request);

// Returns the host that "host" of the request names, or the first host if "host" is missing. Never null. Fails
// (invalid) if no host has the name, or several are registered with it.
ats::result<world::host*> find_host(running_hosts& hosts, const json& request);

// Returns the integer `key` of a request, or `missing_value` if the request does not have it. Fails (invalid) if it is
// no integer from `least` to `most`. A plain conversion of the member would wrap.
ats::result<int> integer_of(const json& request, const char* key, unsigned least, unsigned most, int missing_value);

// Returns the "level" of a request, 5 if the request does not have it. Fails like integer_of().
ats::result<int> trace_level_of(const json& request);

// Makes the answer of a successful order. `sentence` says what the order has changed.
json done(const std::string& sentence);

} // namespace cli
