// Questions and answers as lines of the service's protocol; see docs/protocol.md.
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

// A lookup that a program asks for.
struct lookup {
    const char* request; // "resolve", "reverse" or "path"
    int family;          // AF_INET for an address, AF_INET6 for a GID
    const void* subject; // the address or GID in network order; null if the program passed none
};

// lookup_body() returns a lookup without its id. The other function adds an id and makes a line of it. The answer has
// the same id.
std::string lookup_body(const lookup& lookup, const ats_options_t& options);
std::string line_of(const std::string& body, uint64_t id);

// Returns the body of a program's own request, or "" if it is not a JSON object with members.
std::string request_body(std::string_view request);

// The parts of a line from the service that every reader needs.
struct reply {
    bool is_valid = false; // a JSON object
    bool has_id = false;
    uint64_t id = 0;
    bool is_last = true; // no more lines with this id follow
    ats_answer_t answer{};
};

// Reads the answer of a question.
reply read_reply(std::string_view line);

// Reads a line that answers a program's own request. Returns the id, and in `text` the object without the id.
reply read_request_line(std::string_view line, std::string& text);

// Returns the error in the answer to the hello, or "" if the service speaks this protocol.
std::string hello_refusal(std::string_view line);

// Stores `text`, cut to its size, as the answer's reason.
void set_reason(ats_answer_t& answer, std::string_view text);

} // namespace client
