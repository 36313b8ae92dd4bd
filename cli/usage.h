// What is wrong with a command line, in our words, and which values are right.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace cli
{

// Checks of an option's value. Their complaints say what the value may be.
CLI::Validator one_of(const std::vector<std::string>& words);
CLI::Validator number_from(double least, double most);
CLI::Validator existing_file();
CLI::Validator existing_folder();

// What is wrong with the command line that `program` was parsing, and, in a second line, where to look it up.
std::string complaint_about(const CLI::App& program, const CLI::ParseError& wrong);

} // namespace cli
