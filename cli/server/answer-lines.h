// Makes the lines that the server sends to clients: answers and errors, as JSON.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/result.h"

namespace cli
{

// Returns the line for an answer, without a line end. Adds the id of the request, if it has one. Replaces bytes that
// are not valid UTF-8, because texts of modules may contain such bytes.
std::string line_of(nlohmann::json answer, const std::optional<uint64_t>& id);

// Returns the answer to a refused request.
nlohmann::json refusal(const ats::error& error);

// Returns an error of the kind "invalid": the client has sent a wrong request.
ats::error malformed(const std::string& text);

// Call it in a catch block. Returns the error for the caught exception. For example, a member of the request is missing
// or has a wrong type, or the service has a shortage of memory, threads or descriptors.
ats::error caught_error();

} // namespace cli
