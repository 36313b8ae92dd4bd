// Questions and answers as lines of the service's protocol, see docs/protocol.md.
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
    int family;          // AF_INET: about an address, AF_INET6: about a GID
    const void* subject; // that address or GID, in network order; null: the program gave none
};

// A lookup without its id, and the line that it makes with one. The id comes back in the answer.
std::string lookup_body(const lookup& lookup, const ats_options_t& options);
std::string line_of(const std::string& body, uint64_t id);

// The body of a program's own request. Empty: it is not a JSON object with members.
std::string request_body(std::string_view request);

// A line from the service, read as far as everybody needs it.
struct reply {
    bool is_valid = false; // a JSON object
    bool has_id = false;
    uint64_t id = 0;
    bool is_last = true; // no further line of this id follows
    ats_answer_t answer{};
};

// Reads the answer of a question.
reply read_reply(std::string_view line);

// Reads a line of a program's own request: the id, and in `text` the object without it.
reply read_request_line(std::string_view line, std::string& text);

// The error that answers the hello, or "" if the service speaks our protocol.
std::string hello_refusal(std::string_view line);

// Cuts `text` into the answer's reason.
void set_reason(ats_answer_t& answer, std::string_view text);

} // namespace client
