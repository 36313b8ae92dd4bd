// Makes untrusted text safe to print. A record of the SA, a log line or a configuration file can hold any bytes, and a
// terminal executes some of them. All functions are pure and may be called in any context.
#pragma once

#include <string>
#include <string_view>

namespace world
{

// True for valid UTF-8 without control characters and without marks that change the writing direction.
bool is_printable(std::string_view text);

// Writes each byte of such a character, and each byte that is not valid UTF-8, as \xNN.
std::string printable(std::string_view text);

// The same for text of several lines: keeps line ends and tabs.
std::string printable_lines(std::string_view text);

// Writes such characters of a JSON document as \uNNNN, and keeps its line ends. `document` must be valid JSON, where
// they only occur inside strings.
std::string printable_json(std::string_view document);

// Cuts the text to at most `limit` bytes, between two characters.
std::string cut_to_bytes(std::string_view text, size_t limit);

// The width of the text, one column for each character; and the text cut to at most `limit` columns.
size_t columns_of(std::string_view text);
std::string cut_to_columns(std::string_view text, size_t limit);

} // namespace world
