// A request of a client, and the checks that only need the request itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cli/server/fair-queue.h"
#include "host/result.h"

namespace cli
{

// Identifies the connection and the request of an answer.
struct return_ticket {
    queue_place place;
    std::optional<uint64_t> id;
};

struct request {
    nlohmann::json object;
    std::string name;
    return_ticket ticket;
};

// Parses a line from the connection at `place`. Sets `id` as soon as the request's id is known. An error can then be
// answered with the id.
ats::result<request> request_of(std::string_view line, const queue_place& place, std::optional<uint64_t>& id);

// Returns an error if members contradict each other or are out of range. Throws a json::exception if a member has the
// wrong type.
std::optional<ats::error> wrong_members(const request& request);

} // namespace cli
