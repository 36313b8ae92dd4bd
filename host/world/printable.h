// Makes untrusted text safe to print. A record of the SA, a log line or a configuration file can contain any bytes, and
// a terminal executes some of them. All functions are pure and may be called in any context.
#pragma once

#include <string>
#include <string_view>

namespace world
{

// In these comments, line separators, paragraph separators and marks that change the writing direction are control
// characters, too.

// Returns true if the text is valid UTF-8 without control characters.
bool is_printable(std::string_view text);

// Returns the text with "\xNN" for each byte of a control character and for each byte that is not valid UTF-8.
std::string printable(std::string_view text);

// Does the same as printable(), but keeps line ends and tabs.
std::string printable_lines(std::string_view text);

// Returns a JSON document with "\uNNNN" for each control character except line ends. `document` must be valid JSON.
// Outside of strings, it must have no control characters except line ends.
std::string printable_json(std::string_view document);

// Cuts the text between two characters, to at most `limit` bytes.
std::string cut_to_bytes(std::string_view text, size_t limit);

// Returns the width of a text in columns: one for each character.
size_t columns_of(std::string_view text);

// Cuts the text to at most `limit` columns.
std::string cut_to_columns(std::string_view text, size_t limit);

} // namespace world
