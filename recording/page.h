// Makes a self-contained HTML page from a recording. The page shows the run and needs no network.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/result.h"
#include "recording/cut.h"

namespace recording
{

// Writes the page. `about` describes the run; docs/recording.md lists its fields. `lines` is a whole recording. The
// error tells why the file cannot be written.
ats::result<> write_page(const std::string& path, const nlohmann::ordered_json& about, const std::string& lines);

// If the recording was cut, says so in `about`.
void add_window(nlohmann::ordered_json& about, const std::optional<window>& shown_window);

// Returns the whole text of a file that is open for reading and writing.
std::string text_of_file(std::FILE* file);

} // namespace recording
