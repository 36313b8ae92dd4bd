// Makes a self-contained HTML page from a recording. The page shows the run and needs no network.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/result.h"
#include "recording/cut.h"

namespace recording
{

// Checks that the file `path` can be written: creates the file if it is missing. Call it before a long run whose page
// write_page() writes afterwards. The error tells why the file cannot be written.
ats::result<> check_page(const std::string& path);

// Writes the page to the file `path`. `about` describes the run; docs/recording.md lists its fields. `lines` is a whole
// recording, or one from cut(). The error tells why the file cannot be written.
ats::result<> write_page(const std::string& path, const nlohmann::ordered_json& about, const std::string& lines);

// Adds `shown_window` to `about`: the window to which a recording was cut. The page then shows this window. Does
// nothing without a window.
void add_window(nlohmann::ordered_json& about, const std::optional<window>& shown_window);

// Returns the whole text of a file that is open for reading and writing. Moves the position of `file` to its end.
std::string text_of_file(std::FILE* file);

} // namespace recording
