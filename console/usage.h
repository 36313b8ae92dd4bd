// Explains an error in a command line, and names the valid values.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace console
{

// Checks of an option's value. Their messages list the valid values.
CLI::Validator one_of(const std::vector<std::string>& words);
CLI::Validator number_from(double least, double most);
CLI::Validator existing_file();
CLI::Validator existing_folder();

// Adds --modules. `folder` is the default and receives the value.
void add_module_folder_option(CLI::App& command, std::string& folder);

// Explains the error in the command line that `program` was parsing. The second line names the right help.
std::string complaint_about(const CLI::App& program, const CLI::ParseError& error);

} // namespace console
