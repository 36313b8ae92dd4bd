// Parses a request of a client.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cli/server/fair-queue.h"
#include "host/result.h"

namespace cli
{

// Identifies the connection to which an answer goes, and the request to which the answer belongs.
struct return_ticket {
    queue_place place;
    std::optional<uint64_t> id; // nothing if the request has no id
    size_t bytes = 0;           // estimated memory of the request
};

struct request {
    nlohmann::json object;
    std::string name;
    return_ticket ticket;
};

// Parses a line from the connection `place`. Also sets `id` to the id of the request, if it has one. If the call fails,
// the caller uses this id for the answer with the error.
ats::result<request> request_of(std::string_view line, const queue_place& place, std::optional<uint64_t>& id);

} // namespace cli
