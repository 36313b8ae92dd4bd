// Prints answers of the service as text. An answer without a needed key throws nlohmann::json::exception; see
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
void show_selected_records(std::ostream& output, const json& answer); // of a search: the SA may have other records
void show_output(std::ostream& output, const json& answer);           // the output of a control command
void show_done(std::ostream& output, const json& answer);

// Formats the status for a window of this size, without a line end after the last line. If the whole status does not
// fit, each port and each host gets one line. If these lines do not fit either, the last line tells how many are
// hidden.
std::string fit_status(const json& answer, size_t columns, size_t lines);

} // namespace cli
