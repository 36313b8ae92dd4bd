// The requests that the service knows, apart from the hello. Each request is one row of a table.
#pragma once

#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cli/service/running-hosts.h"
#include "host/result.h"

namespace cli
{

// The access rules say which users may ask questions, and which users may give orders.
enum class request_kind { question, order };

struct request_type {
    std::string_view name;
    request_kind kind;

    // Returns an error if members of the request contradict each other, do not fit the request or are out of range,
    // otherwise nothing. Throws a json::exception if a member has the wrong type. Null: `answer` checks all members.
    std::optional<ats::error> (*wrong_members)(const nlohmann::json& request);

    // Answers the request in a worker's thread; see cli/service/requests.h. Null: server::carry_out() never passes the
    // request to a worker.
    ats::result<nlohmann::json> (*answer)(running_hosts& hosts, const nlohmann::json& request);

    // If not empty, the row is only for requests with this text in the member "action".
    std::string_view action = {};
};

// Returns the type of a request with this name, or null if the service does not know the request.
const request_type* find_type(std::string_view name, const nlohmann::json& request);

} // namespace cli
