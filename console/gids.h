// GIDs in the notations of clients. An answer of the service has each GID in two notations: that of the module ("0x"
// and 32 digits) and that of InfiniBand tools (like an IPv6 address).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/result.h"
#include "ib-types.h"

namespace console
{

// Reads a GID in either notation. Any other text is invalid.
ats::result<kq_gid_t> gid_of(const std::string& text);

// Adds "gid6" to every object with a "gid", at any depth. It is the same GID in the form of an IPv6 address, or null.
void add_gid6(nlohmann::json& answer);

// Replaces every text that is a GID of 32 hexadecimal digits, at any depth, with the form of an IPv6 address.
void use_ipv6_notation(nlohmann::json& answer);

} // namespace console
