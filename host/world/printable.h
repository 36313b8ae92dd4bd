// Text from elsewhere, made fit to be shown. A record of the SA, a line of a log or a configuration file may hold any
// bytes; a terminal obeys some of them.
#pragma once

#include <string>
#include <string_view>

namespace world
{

// Valid UTF-8 without characters that a terminal obeys: control characters, and those that turn the writing direction.
bool is_printable(std::string_view text);

// The text with every byte of such a character, and every byte that is no UTF-8, written as \xNN. All else stays.
std::string printable(std::string_view text);

// The same for text of several lines: line ends and tabs stay.
std::string printable_lines(std::string_view text);

// The same JSON document without characters that a terminal obeys: inside texts they are written as \uNNNN. Line ends
// outside texts stay. `document` is valid JSON.
std::string printable_json(std::string_view document);

// The longest beginning of the text that has at most `most` bytes and cuts no character.
std::string cut_to_bytes(std::string_view text, size_t most);

// How many columns the text takes, one for each character; and its beginning that takes at most so many.
size_t columns_of(std::string_view text);
std::string cut_to_columns(std::string_view text, size_t most);

} // namespace world
