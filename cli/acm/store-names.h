// The service manager keeps file descriptors of class door: the listening socket and the connections. These are their
// names there (see cli/service/descriptor-store.h).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/service/descriptor-store.h"

namespace acm
{

constexpr const char* listener_name = "acm-listener";
constexpr const char* connection_prefix = "acm-connection-"; // followed by a number

inline std::string connection_name(uint64_t number)
{
    return connection_prefix + std::to_string(number);
}

inline bool is_connection_name(const std::string& name)
{
    return name.starts_with(connection_prefix);
}

// Returns the highest number in the names of connections, or 0 if there are none. New names must get higher numbers.
inline uint64_t last_number_in(const std::vector<cli::kept_descriptor>& descriptors)
{
    const size_t prefix_size = std::string(connection_prefix).size();
    uint64_t last = 0;
    for (const cli::kept_descriptor& descriptor : descriptors)
        if (is_connection_name(descriptor.name))
            last = std::max<uint64_t>(last, std::strtoull(descriptor.name.c_str() + prefix_size, nullptr, 10));
    return last;
}

} // namespace acm
