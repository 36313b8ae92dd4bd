// Reads the address at which the service offers its metrics over HTTP.
#pragma once

#include <netinet/in.h>
#include <optional>
#include <string>

#include "host/world/text.h"

namespace cli
{

// Reads an IPv4 address and a port from 1 to 65535, for example "127.0.0.1:9783". Returns nothing for any other text.
// Pure.
inline std::optional<sockaddr_in> metrics_address_of(const std::string& text)
{
    constexpr unsigned long most = 65535;
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return std::nullopt;
    const std::optional<uint32_t> ip = world::parse_ipv4(text.substr(0, colon));
    const std::string port = text.substr(colon + 1);
    const bool is_number =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    if (!ip || !is_number || std::stoul(port) == 0 || std::stoul(port) > most) return std::nullopt;
    return sockaddr_in{.sin_family = AF_INET,
                       .sin_port = htons(static_cast<uint16_t>(std::stoul(port))),
                       .sin_addr = {.s_addr = *ip},
                       .sin_zero = {}};
}

} // namespace cli
