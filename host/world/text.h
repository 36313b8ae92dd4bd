// Reads and writes IPv4 addresses and GIDs in notations for people. All functions are pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ib-types.h"

namespace world
{

// The address is in network order. parse_ipv4() accepts exactly four decimal numbers from 0 to 255 without leading
// zeros, separated by dots.
std::optional<uint32_t> parse_ipv4(const std::string& text);
std::string format_ipv4(uint32_t ip);

// Reads a GID. Accepts "0x" and 1 to 32 hexadecimal digits, or the notation of an IPv6 address ("fe80::1").
std::optional<kq_gid_t> parse_gid(const std::string& text);

// Formats a GID as "0x" and 32 hexadecimal digits, as in the kernel log and in commands of the control file.
std::string format_gid(const kq_gid_t& gid);

// Formats a GID in the notation of InfiniBand tools, like an IPv6 address: "fe80::2:0:1:1".
std::string format_gid6(const kq_gid_t& gid);

} // namespace world
