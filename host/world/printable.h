// Makes untrusted text safe to print. A record of the SA, a log line or a configuration file can contain any bytes, and
// a terminal executes some of them. All functions are pure and may be called in any context.
#pragma once

#include <string>
#include <string_view>

namespace world
{

// Returns true for valid UTF-8 without control characters and without marks that change the writing direction.
bool is_printable(std::string_view text);

// Writes as \xNN each byte of such a character, and each byte that is not valid UTF-8.
std::string printable(std::string_view text);

// Does the same for a text of several lines. Keeps line ends and tabs.
std::string printable_lines(std::string_view text);

// Writes such characters of a JSON document as \uNNNN. Keeps its line ends. `document` must be valid JSON, which has
// such characters only inside strings.
std::string printable_json(std::string_view document);

// Cuts the text between two characters, to at most `limit` bytes.
std::string cut_to_bytes(std::string_view text, size_t limit);

// columns_of() returns the width of the text, with one column for each character. The other function cuts the text to
// at most `limit` columns.
size_t columns_of(std::string_view text);
std::string cut_to_columns(std::string_view text, size_t limit);

} // namespace world
