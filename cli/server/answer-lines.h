// The lines that the server sends: JSON texts, and the error for a refused request.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/result.h"

namespace cli
{

// The line for an answer, with the request's id if it has one. Texts of modules may not be valid UTF-8; this makes them
// valid.
std::string line_of(nlohmann::json answer, const std::optional<uint64_t>& id);

// The answer to a refused request.
nlohmann::json refusal(const ats::error& error);

// The client's error: the client must change its request.
ats::error malformed(const std::string& text);

// Returns the error for the exception that is being handled: a missing member, a member with a wrong type, or a
// shortage.
ats::error caught_error();

} // namespace cli
