// GIDs as clients write and read them. An answer of the service holds each GID in both notations: as the module shows
// it, and as InfiniBand tools do.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/result.h"
#include "ib-types.h"

namespace console
{

// Reads a GID in either notation. Any other text is invalid.
ats::result<kq_gid_t> gid_of(const std::string& text);

// Gives every object that has a "gid" a "gid6" beside it, at any depth: the same GID like an IPv6 address, or null.
void add_gid6(nlohmann::json& answer);

// Rewrites every text that is a GID of 32 hexadecimal digits and nothing else like an IPv6 address, at any depth.
void use_ipv6_notation(nlohmann::json& answer);

} // namespace console
