// Requests of clients for an address, a GID or a path: their questions, and the lines with their answers.
#pragma once

#include <optional>
#include <string>

#include "cli/server/lookups.h"
#include "cli/server/request.h"

namespace cli
{

// Returns true if the request needs only one lookup. The server answers it without a worker.
bool is_simple_lookup(const request& request);

// The question of a lookup request. Fails if its address or GID is malformed.
ats::result<lookups::subject> subject_of(const request& request);

// Searches only the caches of IBAT, and counts the answer. Never waits.
lookups::answer look_into_cache(kernel::machine& machine, const lookups::subject& subject,
                                lookup_statistics& statistics);

// The line that answers `request`.
std::string line_of(const lookups::answer& answer, bool is_by_gid, bool is_cached_only,
                    const std::optional<uint64_t>& id);

} // namespace cli
