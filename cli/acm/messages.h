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

// The length of the request that `bytes` begin with: 0 if more bytes are needed to know it, nothing if no request
// begins so.
std::optional<size_t> length_of(message_view bytes);

uint8_t opcode_of(message_view request);

// One end of a path: nothing, an IPv4 address in network order, or a host name.
using place = std::variant<std::monostate, uint32_t, std::string>;

struct resolve_request {
    place source;
    place destination;
    std::optional<path_record> path; // to be completed; fields that are zero are open
    bool is_cache_only = false;
    bool is_fresh = false; // the SA is asked whatever the cache knows
};

// Reads a whole resolve request. The status, if not success, refuses it.
struct read_request {
    acm::status status = status::success;
    resolve_request request = {};
};
read_request read_resolve(message_view bytes);

struct route {
    acm::status status = status::no_data;
    path_record path = {};               // of success, as the next
    std::optional<uint32_t> source = {}; // the address of the asking host, for a request that names none
};
message resolve_answer(message_view request, const route& route);

// A number of counters, in the order of the protocol.
enum counter { errors, resolutions, absences, address_queries, address_hits, path_queries, path_hits, counter_count };
using counters = std::array<uint64_t, counter_count>;

// The subject of a query. Endpoints and ports count from 1. Endpoint 0 means all.
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

// An answer without content to a request of any kind.
message refusal(message_view request, status status);

} // namespace acm
