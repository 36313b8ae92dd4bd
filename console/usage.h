// Checks the values of options, and explains errors in a command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace console
{

// Return validators for the value of an option. The error texts of one_of() and number_from() name the valid values.
CLI::Validator one_of(const std::vector<std::string>& words);
CLI::Validator number_from(double least, double most);
CLI::Validator existing_file();
CLI::Validator existing_folder();

// Adds the option --modules. `folder` holds the default and receives the value; it must outlive `command`.
void add_module_folder_option(CLI::App& command, std::string& folder);

// Returns two lines about an error that `program` threw while parsing a command line. The first line explains the
// error. The second line tells the user which --help to read.
std::string complaint_about(const CLI::App& program, const CLI::ParseError& error);

} // namespace console
