// Answers of the service, for people.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace cli
{

using json = nlohmann::json;

void show_status(std::ostream& to, const json& answer);
void show_resolution(std::ostream& to, const json& answer);
void show_records(std::ostream& to, const json& answer, bool is_selection); // whether there may be others
void show_output(std::ostream& to, const json& answer);                     // of a control command
void show_done(std::ostream& to, const json& answer);

// The status in a window of that many columns and lines: everything if it fits, otherwise a line for each port and
// host; what still has no room is cut, and its last line says so.
std::string fit_status(const json& answer, size_t columns, size_t lines);

} // namespace cli
