// Prints answers of the service as text. All functions throw nlohmann::json::exception if the answer lacks a key; see
// set_client_action().
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace cli
{

using json = nlohmann::json;

void show_status(std::ostream& output, const json& answer);
void show_resolution(std::ostream& output, const json& answer);
void show_path(std::ostream& output, const json& answer);
void show_all_records(std::ostream& output, const json& answer);
void show_selected_records(std::ostream& output, const json& answer); // for records that match a filter
void show_removed_records(std::ostream& output, const json& answer);
void show_output(std::ostream& output, const json& answer); // for the output of a control command
void show_done(std::ostream& output, const json& answer);

// Formats the status for a window of this size. The last line has no line end. If the whole status does not fit, each
// port and each host gets one line. If there are still too many lines, the last line tells how many are hidden. Lines
// that are too long are cut.
std::string fit_status(const json& answer, size_t columns, size_t lines);

} // namespace cli
