// Formats answers of the service: as tables for people, and as JSON for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace console
{

using table_row = std::vector<std::string>;
using table_rows = std::vector<table_row>; // the first row is the heading

// Formats a JSON value for people: texts without quotation marks and with control characters escaped, "-" for null.
std::string cell_text(const nlohmann::json& value);

// Returns a row with the values of these keys of `object`. The cell of a missing key is "-".
table_row make_row(const nlohmann::json& object, const std::vector<const char*>& keys);

// Returns a table: the heading, and a row for each object of the array `objects`.
table_rows make_rows(const nlohmann::json& objects, const table_row& heading, const std::vector<const char*>& keys);

// Formats a table as text. Each column is as wide as its widest cell. Each line begins with `indent` blanks.
std::string format_table(const table_rows& rows, size_t indent);

// Writes `answer` as JSON for programs, with `indent` blanks for each level, or in one line if `indent` is on_one_line.
// Escapes control characters in texts, because `output` may be a terminal.
constexpr int json_indent = 2;
constexpr int on_one_line = -1;
void show_json(std::ostream& output, const nlohmann::json& answer, int indent = json_indent);

} // namespace console
