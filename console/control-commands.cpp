#include "console/control-commands.h"

#include <algorithm>
#include <array>
#include <sstream>

#include "console/errors.h"
#include "console/gids.h"
#include "console/identity.h"
#include "console/log-filter.h"
#include "console/suggestion.h"
#include "console/table.h"
#include "host/world/text.h"

namespace console
{

namespace
{

constexpr size_t longest_word = 40; // bytes; the module splits a longer word into several

struct control_command {
    const char* name;
    const char* arguments;
    size_t argument_count;
    const char* effect;
};

constexpr std::array<control_command, 7> commands = {{
    {"show_local", "", 0, "Nothing; it is accepted for old scripts. 'ats status' shows the ports"},
    {"dump_requests", "", 0, "Nothing; it is accepted for old scripts"},
    {"rarp", "GID", 1, "Ask the cache or the SA for the address of a GID; the answer is in the log, level 4"},
    {"set_host_name", "NAME", 1, "Register this host name from now on, on every HCA"},
    {"set_ip_addrs", "ADDRESS", 1, "Register this IPv4 address from now on, on every HCA"},
    {"sa_verify_period", "SECONDS PERCENT", 2,
     "Check the registration in this interval, plus a random delay of up to this percentage (at most 100); 0 seconds "
     "means never"},
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

std::vector<std::string> command_names()
{
    std::vector<std::string> names;
    for (const control_command& command : commands) names.emplace_back(command.name);
    return names;
}

ats::result<control_command> command_named(const std::string& name)
{
    const auto* const command = std::ranges::find(commands, name, &control_command::name);
    if (command != commands.end()) return *command;
    return ats::fail(ats::error_kind::invalid, "ats has no control command " + quote(name) +
                                                   suggestion_for(name, command_names()) +
                                                   " ('ats control --list' shows them)");
}

// Checks a GID, an address or a name, because the module would accept some wrong ones, for example the address
// 256.1.1.1. Returns the argument as the module reads it: a GID gets all its hexadecimal digits.
ats::result<std::string> argument_for_module(const control_command& command, const std::string& word)
{
    const std::string_view kind = command.arguments;
    if (kind == "GID") return gid_of(word).map(world::format_gid);
    if (kind == "ADDRESS")
        if (const ats::result<uint32_t> address = host_address_of(word); !address) return ats::pass_on(address);
    if (kind == "NAME" && !is_host_name(word))
        return ats::fail(ats::error_kind::invalid, quote(word) + " cannot be a host name: take " + host_name_rule);
    return word;
}

} // namespace

std::string list_control_commands()
{
    table_rows rows = {{"COMMAND", "ARGUMENTS", "WHAT IT DOES"}};
    for (const control_command& command : commands) rows.push_back({command.name, command.arguments, command.effect});
    return format_table(rows, 0);
}

ats::result<std::string> control_line(const std::vector<std::string>& words)
{
    using ats::error_kind;
    const std::vector<std::string> parts = split(words);
    if (parts.empty())
        return ats::fail(error_kind::invalid, "COMMAND is empty ('ats control --list' shows what there is)");
    const ats::result<control_command> command = command_named(parts.front());
    if (!command) return ats::pass_on(command);
    const size_t argument_count = parts.size() - 1;
    if (argument_count != command->argument_count) {
        const std::string arguments = command->argument_count == 0 ? "alone" : command->arguments;
        return ats::fail(error_kind::invalid, std::string("write ") + command->name + " " + arguments + ", not " +
                                                  std::to_string(argument_count) +
                                                  (argument_count == 1 ? " argument" : " arguments"));
    }
    std::string line = command->name;
    for (size_t i = 1; i < parts.size(); ++i) {
        if (parts[i].size() > longest_word)
            return ats::fail(error_kind::invalid, quote(parts[i]) + " is too long: a word has at most 40 bytes");
        const ats::result<std::string> argument = argument_for_module(*command, parts[i]);
        if (!argument) return argument;
        line += " " + *argument;
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
    std::istringstream lines{std::string(output)};
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && trace_level_of(line) <= ZR_ERROR) return true;
    return false;
}

} // namespace console
