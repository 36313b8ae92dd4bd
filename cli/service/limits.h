// The limits of each user and of each connection.
#pragma once

#include <cstddef>

namespace cli
{

// The defaults are several times what 256 processes of a parallel job need.
struct service_limits {
    size_t connections = 1024;             // of one user at the same time
    size_t questions = 16384;              // of one user, not yet answered
    size_t line_bytes = 65536;             // the longest line of a client
    size_t unread_bytes = size_t{4} << 20; // answers that a connection has not read: it is cut off beyond

    bool operator==(const service_limits&) const = default;
};

} // namespace cli
