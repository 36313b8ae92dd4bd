// Explains an error in a command line in our words, and names the values that are right.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace console
{

// Checks of an option's value. Their messages say which values are possible.
CLI::Validator one_of(const std::vector<std::string>& words);
CLI::Validator number_from(double least, double most);
CLI::Validator existing_file();
CLI::Validator existing_folder();

// Adds --modules. `folder` holds the default and takes the value.
void add_module_folder_option(CLI::App& command, std::string& folder);

// Explains the error in the command line that `program` was parsing. The second line names the help to read.
std::string complaint_about(const CLI::App& program, const CLI::ParseError& error);

} // namespace console
