#include "cli/commands/client-commands.h"

#include <iostream>

#include "cli/commands/sa-remove.h"
#include "cli/commands/sa-show.h"
#include "cli/commands/service-client.h"
#include "cli/commands/show.h"
#include "console/control-commands.h"
#include "console/errors.h"
#include "console/usage.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

// The argument of a command. `key` is the name of the argument in the request. `name` is its name in the help.
struct argument_text {
    std::string key;
    std::string name;
    std::string help;
};

// Adds a command that changes the host's record. The request has the same name as the command.
void add_record_order(CLI::App& program, ats::result<int>& outcome, const std::string& name, const std::string& summary,
                      const argument_text& text)
{
    CLI::App* command = program.add_subcommand(name, summary);
    auto argument = std::make_shared<std::string>();
    auto no_wait = std::make_shared<bool>(false);
    command->add_option(text.name, *argument, text.help)->required()->option_text(" ");
    command->add_flag("--no-wait", *no_wait, "Do not wait until the SA has confirmed the new record");
    auto options = add_client_options(*command, one_host);
    set_client_action(*command, outcome, [=, key = text.key] {
        return ask_and_show(*options, {{"request", name}, {key, *argument}, {"no_wait", *no_wait}}, show_done);
    });
}

void add_flush(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("flush", "Drop an entry of a host's address cache, or all entries");
    auto entry = std::make_shared<std::string>();
    command->add_option("WHAT", *entry, "An address or a GID (default: everything but the host's own)")
        ->option_text(" ");
    auto options = add_client_options(*command, one_host);
    set_client_action(*command, outcome, [=] {
        return ask_and_show(*options, {{"request", "flush"}, {"what", *entry}}, show_done);
    });
}

ats::result<int> run_control(const client_options& options, const std::vector<std::string>& words)
{
    const ats::result<std::string> line = console::control_line(words);
    if (!line) return ats::pass_on(line);
    const ats::result<json> answer = ask_once(options, {{"request", "control"}, {"command", *line}});
    if (!answer) return ats::pass_on(answer);
    show_answer(options, *answer, show_output);
    if (answer->value("failed", false)) return console::exit_failed;
    const std::string warning = console::control_warning(*line);
    if (!warning.empty()) std::cerr << "ats: " << world::printable_lines(warning) << '\n';
    return console::exit_ok;
}

void add_control(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("control", "Write a command to the control file of ats");
    auto words = std::make_shared<std::vector<std::string>>();
    auto is_list = std::make_shared<bool>(false);
    command->add_option("COMMAND", *words, "As in 'sa_verify_period 60 1'. Quote it if a word begins with -")
        ->option_text("...");
    command->add_flag("--list", *is_list, "Show the commands and their effects");
    auto options = add_client_options(*command, one_host);
    set_client_action(*command, outcome, [=]() -> ats::result<int> {
        const bool is_help = *words == std::vector<std::string>{"help"};
        if (!*is_list && !is_help) return run_control(*options, *words);
        std::cout << console::list_control_commands();
        return console::exit_ok;
    });
}

void add_trace(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("trace", "Set how much ats writes to the kernel log");
    auto level = std::make_shared<int>();
    command->add_option("LEVEL", *level, "0 nothing, 1 errors, 2 warnings, 4 progress, 5 everything")
        ->required()
        ->check(console::number_from(0, 5))
        ->option_text(" ");
    auto options = add_client_options(*command, "On this host only (default: all hosts)");
    set_client_action(*command, outcome, [=] {
        return ask_and_show(*options, {{"request", "trace"}, {"level", *level}}, show_done);
    });
}

void add_link(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("link", "Bring a port's link up or down (embedded fabric)");
    command->require_subcommand(1);
    for (const std::string direction : {"up", "down"}) {
        CLI::App* change = command->add_subcommand(direction, "Bring the link " + direction);
        auto hca = std::make_shared<std::string>();
        auto port = std::make_shared<int>(1);
        change->add_option("--hca", *hca, "The HCA (default: the host's first)")->option_text("NAME");
        change->add_option("--port", *port, "The port (default: 1)")->option_text("N");
        auto options = add_client_options(*change, one_host);
        set_client_action(*change, outcome, [=] {
            const json request = {{"request", "link"}, {"direction", direction}, {"hca", *hca}, {"port", *port}};
            return ask_and_show(*options, request, show_done);
        });
    }
}

// Adds an action of `ats sa`. Returns the option for the argument of the action.
CLI::Option* add_sa_action(CLI::App& sa, ats::result<int>& outcome, const std::string& action,
                           const std::string& summary, const argument_text& text)
{
    CLI::App* command = sa.add_subcommand(action, summary);
    auto argument = std::make_shared<std::string>();
    CLI::Option* argument_option = command->add_option(text.name, *argument, text.help)->option_text(" ");
    auto options = add_client_options(*command, no_host);
    set_client_action(*command, outcome, [=, key = text.key] {
        return ask_and_show(*options, {{"request", "sa"}, {"action", action}, {key, *argument}}, show_done);
    });
    return argument_option;
}

void add_sa(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* sa = program.add_subcommand(
        "sa", "List or remove the Subnet Administrator's records, or disturb the SA of an embedded fabric");
    sa->require_subcommand(1);
    add_sa_show(*sa, outcome);
    add_sa_remove(*sa, outcome);
    add_sa_action(*sa, outcome, "forget", "Make the SA lose a GID's record, or all records",
                  {"gid", "GID", "The ServiceGID (default: all records)"});
    add_sa_action(*sa, outcome, "silence", "Make the SA silent, or let it answer again",
                  {"state", "STATE", "on or off"})
        ->required()
        ->check(console::one_of({"on", "off"}));
    add_sa_action(*sa, outcome, "status", "Make the SA answer everything with a status word",
                  {"word", "WORD", "16 bits, as in 0x0300; 0: answer normally again"})
        ->required();
}

} // namespace

void add_orders(CLI::App& program, ats::result<int>& outcome)
{
    add_control(program, outcome);
    add_flush(program, outcome);
    add_trace(program, outcome);
    add_record_order(program, outcome, "set-name", "Change the host name that is registered",
                     {"name", "NAME", "Up to 30 bytes of UTF-8, no blanks"});
    add_record_order(program, outcome, "set-address", "Change the IPv4 address that is registered",
                     {"address", "ADDRESS", "As in 10.0.0.9"});
    add_link(program, outcome);
    add_sa(program, outcome);
}

} // namespace cli
