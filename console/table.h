// Answers as a table for people and as JSON for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace console
{

// Rows under a heading, each column as wide as its widest cell, indented by `indent` blanks.
std::string format_table(const std::vector<std::vector<std::string>>& rows, int indent);

// Writes a document for programs. Its texts may end up on a terminal, so control characters are escaped. An `indent`
// of -1 writes one line.
constexpr int json_indent = 2;
void show_json(std::ostream& output, const nlohmann::json& answer, int indent = json_indent);

} // namespace console
