// The limits of each user and of each connection.
#pragma once

#include <cstddef>

namespace cli
{

// The defaults are several times the needs of 256 processes of a parallel job.
struct service_limits {
    size_t connections = 1024;             // of one user at the same time
    size_t questions = 16384;              // unanswered questions of one user
    size_t line_bytes = 65536;             // the longest line of a client
    size_t unread_bytes = size_t{4} << 20; // unread answers of a connection; beyond the limit it is cut off

    bool operator==(const service_limits&) const = default;
};

} // namespace cli
