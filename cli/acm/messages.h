// Reads requests and writes answers of the protocol in wire.h. All functions are pure.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "cli/acm/wire.h"

namespace acm
{

using message = std::vector<uint8_t>;
using message_view = std::span<const uint8_t>;

// Returns the length of the request at the start of `bytes`. Returns 0 if more bytes are needed to know it, and nothing
// if `bytes` is not the start of a request.
std::optional<size_t> length_of(message_view bytes);

uint8_t opcode_of(message_view request);

// One end of a path: nothing, an IPv4 address in network order, or a host name.
using place = std::variant<std::monostate, uint32_t, std::string>;

struct resolve_request {
    place source;
    place destination;
    std::optional<path_record> path; // the path to find must agree with the fields that are not zero
    bool is_cache_only = false;
    bool is_fresh = false; // the SA must be asked even if the cache has an answer
};

// Reads a whole resolve request. If the status is not `success`, the request must be refused with it.
struct read_request {
    acm::status status = status::success;
    resolve_request request = {};
};
read_request read_resolve(message_view bytes);

struct route {
    acm::status status = status::no_data;
    path_record path = {};               // valid for success, like the next member
    std::optional<uint32_t> source = {}; // the address of the asking host, if the request names none
};
message resolve_answer(message_view request, const route& route);

// Numbers of counters, in the order of the protocol.
enum counter { errors, resolutions, absences, address_queries, address_hits, path_queries, path_hits, counter_count };
using counters = std::array<uint64_t, counter_count>;

// These functions read the subject of a query. Endpoints and ports count from 1. Endpoint 0 means all.
unsigned endpoint_of_counters(message_view request);
struct endpoint_port {
    unsigned endpoint;
    unsigned port;
};
endpoint_port endpoint_of_query(message_view request);

struct endpoint {
    uint64_t device_guid = 0;
    uint8_t port = 0;
    uint8_t port_count = 0;
    uint16_t p_key = 0;
    std::vector<std::string> addresses = {};
};

message counters_answer(message_view request, const counters& counters);
message endpoint_answer(message_view request, const endpoint& endpoint);

// An answer without content, for a request of any kind.
message refusal(message_view request, status status);

} // namespace acm
