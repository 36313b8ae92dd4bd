// Answers as tables for people and as JSON for programs.
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

// The cell texts for these keys of an object. A missing key counts as null.
table_row make_row(const nlohmann::json& object, const std::vector<const char*>& keys);

// A table with a row for each object of the array `objects`.
table_rows make_rows(const nlohmann::json& objects, const table_row& heading, const std::vector<const char*>& keys);

// Formats a table. Each column is as wide as its widest cell. Each line begins with `indent` blanks.
std::string format_table(const table_rows& rows, size_t indent);

// Writes a document for programs. Its output may be a terminal, so control characters in its texts are escaped. An
// `indent` of `on_one_line` writes one line.
constexpr int json_indent = 2;
constexpr int on_one_line = -1;
void show_json(std::ostream& output, const nlohmann::json& answer, int indent = json_indent);

} // namespace console
