#include "console/usage.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <filesystem>

#include <fmt/core.h>

#include "console/errors.h"
#include "console/suggestion.h"

namespace console
{

namespace
{

std::string number_text(double number)
{
    return fmt::format("{:.15g}", number); // 15 digits are enough to write the limits of options without an exponent
}

// Makes a validator from `complaint_about_value`, which returns "" for a valid value.
CLI::Validator check(const std::function<std::string(const std::string&)>& complaint_about_value)
{
    return CLI::Validator([complaint_about_value](std::string& value) { return complaint_about_value(value); }, "");
}

std::vector<std::string> command_names(const CLI::App& command)
{
    std::vector<std::string> names;
    const auto all = [](const CLI::App*) { return true; };
    for (const CLI::App* subcommand : command.get_subcommands(all)) names.push_back(subcommand->get_name());
    return names;
}

std::vector<std::string> option_names(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    return names;
}

// Explains why a word is not allowed on the command line.
std::string complaint_about_word(const CLI::App& command, const std::string& word)
{
    if (word.starts_with("-")) {
        const std::string name = word.substr(0, word.find('='));
        return "unknown option " + quote(name) + suggestion_for(name, option_names(command));
    }
    if (command.get_require_subcommand_min() > 0)
        return "unknown command " + quote(word) + suggestion_for(word, command_names(command));
    return quote(word) + " is one argument too many";
}

std::string replace_first(const std::string& text, const std::string& words, const std::string& replacement)
{
    const size_t place = text.find(words);
    if (place == text.npos) return text;
    return text.substr(0, place) + replacement + text.substr(place + words.size());
}

// Returns CLI11's message about options, in plainer words for the kinds of errors below.
std::string complaint_about_options(const CLI::ParseError& error)
{
    const std::string text = error.what();
    const std::string kind = error.get_name();
    if (kind == "ExcludesError") return replace_first(text, " excludes ", " cannot go together with ");
    if (kind == "RequiresError") return replace_first(text, " requires ", " needs ");
    if (kind == "RequiredError") return replace_first(text, " is required", " is missing");
    if (kind == "ConversionError") return replace_first(text, "Could not convert: ", "") + " is not a whole number";
    if (kind == "ArgumentMismatch") return text.substr(0, text.find(':')) + " needs a value";
    return text;
}

} // namespace

CLI::Validator one_of(const std::vector<std::string>& words)
{
    assert(!words.empty());
    return check([words](const std::string& value) -> std::string {
        if (std::ranges::find(words, value) != words.end()) return "";
        std::string list = words.front();
        for (size_t i = 1; i < words.size(); ++i) {
            const bool is_last = i + 1 == words.size();
            list += (is_last ? " or " : ", ") + words[i];
        }
        return fmt::format("{} is not possible: write {}", quote(value), list);
    });
}

CLI::Validator number_from(double least, double most)
{
    return check([=](const std::string& value) -> std::string {
        double number = 0;
        const char* const end = value.data() + value.size();
        const auto [parse_end, error] = std::from_chars(value.data(), end, number);
        const bool is_number = error == std::errc() && parse_end == end;
        if (is_number && number >= least && number <= most) return "";
        return fmt::format("{} is not possible: write a number from {} to {}", quote(value), number_text(least),
                           number_text(most));
    });
}

CLI::Validator existing_file()
{
    return check([](const std::string& path) -> std::string {
        std::error_code error; // after an error, the path counts as missing
        if (std::filesystem::is_directory(path, error)) return quote(path) + " is a folder, not a file";
        return std::filesystem::exists(path, error) ? "" : "there is no file " + quote(path);
    });
}

CLI::Validator existing_folder()
{
    return check([](const std::string& path) -> std::string {
        std::error_code error; // after an error, the path counts as missing
        if (std::filesystem::is_directory(path, error)) return "";
        if (std::filesystem::exists(path, error)) return quote(path) + " is not a folder";
        return "there is no folder " + quote(path);
    });
}

void add_module_folder_option(CLI::App& command, std::string& folder)
{
    command.add_option("--modules", folder, "The folder of ats.so, ibat.so and ucm.so (default: " + folder + ")")
        ->check(existing_folder())
        ->option_text("DIR");
}

std::string complaint_about(const CLI::App& program, const CLI::ParseError& error)
{
    const CLI::App* command = &program; // after the loop: the command in which the parser stopped
    std::string command_line = program.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        command_line += " " + command->get_name();
    }
    const std::vector<std::string> unknown_words = command->remaining();
    const bool needs_subcommand = command->get_require_subcommand_min() > 0;
    // get_name() of an ExtrasError may return the name of a command, so the type of `error` decides.
    const bool is_about_words = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
    std::string complaint;
    if (!unknown_words.empty() && (is_about_words || needs_subcommand))
        complaint = complaint_about_word(*command, unknown_words.front());
    else if (needs_subcommand)
        complaint = "a command is missing";
    else
        complaint = complaint_about_options(error);
    return fmt::format("{}\nTry '{} --help'.", complaint, command_line);
}

} // namespace console
