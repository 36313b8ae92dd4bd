// The fields that an event of a recording must have. Without them, the page could not show the recording.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace recording
{

// Returns the first fault in the fields of the event, for example "an event 'log' needs the text 'host'", or "" if
// there is none. Knows nothing about events of other kinds than those of docs/recording.md, and finds no fault in them.
// `event` is an object with the text "e".
std::string fault_in_fields(const nlohmann::ordered_json& event);

} // namespace recording
