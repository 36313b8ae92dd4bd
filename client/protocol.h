// Makes the lines of the service's protocol and reads them. docs/protocol.md describes the protocol.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "client/ats/client.h"

namespace client
{

constexpr int protocol_version = 1;

// The first line of every connection, with its line end.
std::string hello_line();

// The question of one lookup call of the C interface.
struct lookup {
    const char* request; // "resolve", "reverse" or "path"
    int family;          // AF_INET for an address, AF_INET6 for a GID
    const void* subject; // the address or GID in network order; null if the program passed a null pointer
};

// A body is a request as JSON without an id and without the closing brace. lookup_body() makes the body of a lookup.
// request_body() makes the body of a request that is passed to ats_request(); it returns "" if `request` is not a JSON
// object with members, or if it has more than 16 levels.
std::string lookup_body(const lookup& lookup, const ats_options_t& options);
std::string request_body(std::string_view request);

// Adds the id, the closing brace and the line end to a body. The service's answer has the same id.
std::string line_of(const std::string& body, uint64_t id);

// The contents of a line from the service.
struct reply {
    bool is_valid = false; // true if the line is a JSON object
    bool has_id = false;
    uint64_t id = 0;
    bool is_last = true;   // true if no more lines with this id follow
    ats_answer_t answer{}; // filled only by read_reply()
};

// Reads the answer to a lookup.
reply read_reply(std::string_view line);

// Reads a line of the answer to ats_request() or ats_request_begin(). Stores the JSON object, without the id, in
// `text`.
reply read_request_line(std::string_view line, std::string& text);

// Reads the answer to the hello. Returns "" if the service uses this version of the protocol, otherwise the reason why
// the client cannot use the service.
std::string hello_refusal(std::string_view line);

// Stores `text` as the answer's reason. Cuts it to the size of the field, between two UTF-8 characters.
void set_reason(ats_answer_t& answer, std::string_view text);

} // namespace client
