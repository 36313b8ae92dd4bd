// Reads the two notations of a GID, and adds the second one to answers. The module writes "0x" and 32 hexadecimal
// digits. InfiniBand tools write a GID like an IPv6 address. In an answer of the service, "gid" has the first notation
// and "gid6" the second.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/result.h"
#include "ib-types.h"

namespace console
{

// Reads a GID in either notation. Fails (invalid) if `text` is not a GID.
ats::result<kq_gid_t> gid_of(const std::string& text);

// Adds "gid6" to every object that has a "gid", at any depth. "gid6" is the same GID, written like an IPv6 address.
// "gid6" is null if "gid" is not a valid GID.
void add_gid6(nlohmann::json& answer);

// Replaces every text of the form "0x" and 32 hexadecimal digits, at any depth, by the same GID, written like an IPv6
// address.
void use_ipv6_notation(nlohmann::json& answer);

} // namespace console
