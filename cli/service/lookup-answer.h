// Formats the answer to a lookup of an address, a GID or a path as a line of the protocol. Lookups are the most
// frequent requests, so this code builds the line without a JSON library, which is faster.
#pragma once

#include <optional>
#include <string>

#include "host/world/path-resolution.h"

namespace cli
{

// The functions return a JSON object in one line, without the line end. `id` is the "id" of the request; empty if the
// request has none. `is_by_gid`: the question was a GID. `cache_only`: only the cache was asked. Pure.
std::string lookup_answer(const world::resolution& answer, bool is_by_gid, bool cache_only, std::optional<uint64_t> id);
std::string path_answer(const world::path_resolution& answer, std::optional<uint64_t> id);

} // namespace cli
