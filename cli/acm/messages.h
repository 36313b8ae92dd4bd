// Reads requests and writes answers of the protocol in wire.h. The functions have no side effects.
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

// Returns the length in bytes of the request that begins with `bytes`. The request may be longer than `bytes`. Returns
// 0 if there are too few bytes to know the length. Returns nothing if `bytes` is not the start of a request.
std::optional<size_t> length_of(message_view bytes);

uint8_t opcode_of(message_view request);

// One end of a path: nothing, an IPv4 address in network order, or a host name.
using path_end = std::variant<std::monostate, uint32_t, std::string>;

struct resolve_request {
    path_end source;
    path_end destination;
    // The found path must have the GIDs, the LIDs and the P_Key of this record, except those that are 0 in the record.
    std::optional<path_record> path;
    bool is_cache_only = false;
    bool is_fresh = false; // the SA must be asked even if the cache has an answer
};

// The contents of a resolve request. If `status` is not `success`, the request is wrong: refuse it with this status.
struct read_request {
    acm::status status = status::success;
    resolve_request request = {};
};

// Reads a whole resolve request.
read_request read_resolve(message_view bytes);

struct route {
    acm::status status = status::no_data;
    path_record path = {}; // valid only if `status` is `success`
    // If the request names no source: the address of the port at which the path begins, if it is known.
    std::optional<uint32_t> source = {};
};

// Returns the answer to a resolve request.
message resolve_answer(message_view request, const route& route);

// The counters of the door (door.h), in the order of the protocol.
enum counter { errors, resolutions, absences, address_queries, address_hits, path_queries, path_hits, counter_count };
using counters = std::array<uint64_t, counter_count>;

// An endpoint is an HCA of the service. endpoint_of_counters() returns the endpoint whose counters a request asks for;
// 0 means all. endpoint_of_query() returns the endpoint and port that a request asks for. Endpoints and ports count
// from 1.
unsigned endpoint_of_counters(message_view request);
struct endpoint_port {
    unsigned endpoint;
    unsigned port;
};
endpoint_port endpoint_of_query(message_view request);

// One port of an endpoint.
struct endpoint {
    uint64_t device_guid = 0;
    uint8_t port = 0;
    uint8_t port_count = 0;
    uint16_t p_key = 0;
    std::vector<std::string> addresses = {}; // the IPv4 address as text, if it is known, and the host's name
};

message counters_answer(message_view request, const counters& counters);
message endpoint_answer(message_view request, const endpoint& endpoint);

// Returns an answer that has only a header with `status`, for a request of any kind.
message refusal(message_view request, status status);

} // namespace acm
