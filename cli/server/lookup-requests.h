// Converts the requests "resolve", "reverse" and "path" of clients into questions for class lookups, and the answers
// into lines.
#pragma once

#include <optional>
#include <string>

#include "cli/server/lookups.h"
#include "cli/server/request.h"

namespace cli
{

// Returns true if the request needs only one lookup. The server then answers it without a worker.
bool is_simple_lookup(const request& request);

// Returns the question of a lookup request. Fails if the address or GID in the request is malformed. Throws a
// json::exception if a member is missing or has the wrong type.
ats::result<lookups::subject> subject_of(const request& request);

// Returns the end of the time "within_ms" of a lookup request that has just arrived. Returns time_point::max() if the
// request has no such limit, or is not a lookup.
lookups::time_point deadline_of(const request& request);

// Looks for the answer in the caches of IBAT only, and counts the lookup in `statistics`. Does not wait.
lookups::answer look_into_cache(kernel::machine& machine, const lookups::subject& subject,
                                lookup_statistics& statistics);

// Returns the line for an answer. `is_by_gid`: the question was a GID ("reverse"). `is_cached_only`: only the cache was
// asked.
std::string line_of(const lookups::answer& answer, bool is_by_gid, bool is_cached_only,
                    const std::optional<uint64_t>& id);

} // namespace cli
