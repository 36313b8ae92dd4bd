#include "console/control-commands.h"

#include <algorithm>
#include <array>
#include <sstream>

#include "console/failure.h"
#include "console/gids.h"
#include "console/log-filter.h"
#include "console/suggestion.h"
#include "console/table.h"
#include "host/world/text.h"

namespace console
{

namespace
{

constexpr size_t longest_word = 40; // the module takes a longer one for several

struct control_command {
    const char* name;
    const char* arguments;
    size_t argument_count;
    const char* meaning;
};

constexpr std::array<control_command, 7> commands = {{
    {"show_local", "", 0, "Nothing; it is accepted for old scripts. 'ats status' shows the ports"},
    {"dump_requests", "", 0, "Nothing; it is accepted for old scripts"},
    {"rarp", "GID", 1, "Ask the cache or the SA for the address of a GID; the answer is in the log, level 4"},
    {"set_host_name", "NAME", 1, "Register this host name from now on, on every HCA"},
    {"set_ip_addrs", "ADDRESS", 1, "Register this IPv4 address from now on, on every HCA"},
    {"sa_verify_period", "SECONDS PERCENT", 2,
     "Check the registration so often, up to so much later; 0 seconds: never"},
    {"delete_ip", "ADDRESS", 1,
     "WARNING: makes ADDRESS this host's own, on the first HCA, and deletes the record registered last"},
}};

std::vector<std::string> split(const std::vector<std::string>& words)
{
    std::vector<std::string> parts;
    for (const std::string& word : words) {
        std::istringstream stream(word);
        for (std::string part; stream >> part;) parts.push_back(part);
    }
    return parts;
}

std::vector<std::string> names()
{
    std::vector<std::string> all;
    for (const control_command& command : commands) all.emplace_back(command.name);
    return all;
}

const control_command& command_named(const std::string& name)
{
    const auto* found = std::ranges::find(commands, name, &control_command::name);
    if (found == commands.end())
        throw failure(exit_usage, "ats has no control command " + quote(name) + suggestion_for(name, names()) +
                                      " ('ats control --list' shows them)");
    return *found;
}

} // namespace

std::string list_control_commands()
{
    std::vector<std::vector<std::string>> rows = {{"COMMAND", "ARGUMENTS", "WHAT IT DOES"}};
    for (const control_command& command : commands) rows.push_back({command.name, command.arguments, command.meaning});
    return format_table(rows, 0);
}

std::string control_line(const std::vector<std::string>& words)
{
    const std::vector<std::string> parts = split(words);
    if (parts.empty()) throw failure(exit_usage, "COMMAND is empty ('ats control --list' shows what there is)");
    const control_command& command = command_named(parts.front());
    if (parts.size() - 1 != command.argument_count) {
        const std::string arguments = *command.arguments == '\0' ? " alone" : std::string(" ") + command.arguments;
        throw failure(exit_usage, std::string("write ") + command.name + arguments + ", not " +
                                      std::to_string(parts.size() - 1) + " arguments");
    }
    std::string line;
    for (const std::string& word : parts) {
        const bool is_ipv6_notation = std::string_view(command.arguments) == "GID" && word.find(':') != word.npos;
        const std::string part = is_ipv6_notation ? world::format_gid(gid_of(word)) : word; // the module reads no other
        if (part.size() > longest_word)
            throw failure(exit_usage, quote(part) + " is too long: a word has at most 40 bytes");
        line += (line.empty() ? "" : " ") + part;
    }
    return line;
}

std::string control_warning(const std::string& line)
{
    constexpr std::string_view deletion = "delete_ip ";
    if (!line.starts_with(deletion)) return "";
    const std::string address = line.substr(deletion.size());
    return address + " is this host's own address now, and its record is deleted; 'ats set-address' registers another";
}

bool is_complaint(std::string_view output)
{
    constexpr int level_of_errors = 1;
    std::istringstream lines{std::string(output)};
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && trace_level_of(line) <= level_of_errors) return true;
    return false;
}

} // namespace console
