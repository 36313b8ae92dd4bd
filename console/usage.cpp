#include "console/usage.h"

#include <charconv>
#include <cstdio>
#include <filesystem>

#include "console/failure.h"
#include "console/suggestion.h"

namespace console
{

namespace
{

std::string number_text(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", number); // whole numbers in full
    return text;
}

CLI::Validator check(const std::function<std::string(const std::string&)>& complaint)
{
    return CLI::Validator([complaint](std::string& value) { return complaint(value); }, "");
}

std::vector<std::string> command_names(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(each->get_name());
    return names;
}

std::vector<std::string> option_names(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    return names;
}

// A word that has no place on the command line.
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

// "A excludes B" and the like, as CLI11 writes them.
std::string complaint_about_options(const CLI::ParseError& wrong)
{
    const std::string text = wrong.what();
    const auto parted = [&](const std::string& by, const std::string& joined) {
        const size_t place = text.find(by);
        return place == text.npos ? text : text.substr(0, place) + joined + text.substr(place + by.size());
    };
    const std::string kind = wrong.get_name();
    if (kind == "ExcludesError") return parted(" excludes ", " cannot go together with ");
    if (kind == "RequiresError") return parted(" requires ", " needs ");
    if (kind == "RequiredError") return parted(" is required", " is missing");
    if (kind == "ConversionError") return parted("Could not convert: ", "") + " is no whole number";
    if (kind == "ArgumentMismatch") return text.substr(0, text.find(':')) + " needs a value";
    return text;
}

} // namespace

CLI::Validator one_of(const std::vector<std::string>& words)
{
    return check([words](const std::string& value) -> std::string {
        std::string known;
        for (const std::string& word : words) {
            if (value == word) return "";
            known += (known.empty() ? "" : word == words.back() ? " or " : ", ") + word;
        }
        return quote(value) + " is not possible: write " + known;
    });
}

CLI::Validator number_from(double least, double most)
{
    return check([=](const std::string& value) -> std::string {
        double number = 0;
        const char* const end = value.data() + value.size();
        const auto [stopped, error] = std::from_chars(value.data(), end, number);
        if (error == std::errc() && stopped == end && number >= least && number <= most) return "";
        return quote(value) + " is not possible: write a number from " + number_text(least) + " to " +
               number_text(most);
    });
}

CLI::Validator existing_file()
{
    return check([](const std::string& path) -> std::string {
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored)) return quote(path) + " is a folder, not a file";
        return std::filesystem::exists(path, ignored) ? "" : "there is no file " + quote(path);
    });
}

CLI::Validator existing_folder()
{
    return check([](const std::string& path) -> std::string {
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored)) return "";
        return std::filesystem::exists(path, ignored) ? quote(path) + " is no folder"
                                                      : "there is no folder " + quote(path);
    });
}

void add_module_folder_option(CLI::App& command, std::string& folder)
{
    command.add_option("--modules", folder, "The folder of ats.so, ibat.so and ucm.so (default: " + folder + ")")
        ->check(existing_folder())
        ->option_text("DIR");
}

std::string complaint_about(const CLI::App& program, const CLI::ParseError& wrong)
{
    const CLI::App* command = &program; // the one that was being parsed
    std::string typed = program.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        typed += " " + command->get_name();
    }
    const std::vector<std::string> strange = command->remaining();
    std::string why;
    const bool is_strange = dynamic_cast<const CLI::ExtrasError*>(&wrong) != nullptr; // whose name is the command's
    if (!strange.empty() && (is_strange || command->get_require_subcommand_min() > 0))
        why = complaint_about_word(*command, strange.front());
    else if (command->get_require_subcommand_min() > 0)
        why = "a command is missing";
    else
        why = complaint_about_options(wrong);
    return why + "\nTry '" + typed + " --help'.";
}

} // namespace console
