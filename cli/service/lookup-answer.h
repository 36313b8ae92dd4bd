// The answer about an address, a GID or a path as a line of the protocol. It is built without a JSON library, because
// it is the most frequent answer.
#pragma once

#include <optional>
#include <string>

#include "host/world/path-resolution.h"

namespace cli
{

// The line without its end. `id` is the request's, if it has one.
std::string lookup_answer(const world::resolution& answer, bool is_by_gid, bool cache_only, std::optional<uint64_t> id);
std::string path_answer(const world::path_resolution& answer, std::optional<uint64_t> id);

} // namespace cli
