// The limits of the service for each user and for each connection.
#pragma once

#include <cstddef>

namespace cli
{

// The unanswered requests of a user may hold memory for `questions` requests of this size. A usual request holds less.
constexpr size_t bytes_per_question = 1024;

// The defaults are several times as high as a parallel job with 256 processes needs.
struct service_limits {
    size_t connections = 1024;             // of one user at the same time
    size_t questions = 16384;              // unanswered requests of one user: questions, orders and followed logs
    size_t line_bytes = 65536;             // the longest line of a client
    size_t unread_bytes = size_t{4} << 20; // answers that a client has not read; beyond this, its connection is closed

    bool operator==(const service_limits&) const = default;
};

} // namespace cli
