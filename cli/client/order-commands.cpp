#include "cli/client/client-commands.h"
#include "console/failure.h"
#include "console/table.h"
#include "console/usage.h"

#include <iostream>

#include "cli/client/client.h"
#include "cli/client/sa-show.h"
#include "cli/client/show.h"
#include "console/control-commands.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

// An order that changes the host's record; its argument becomes the `key` of the request of the command's name.
void add_record_order(CLI::App& program, const std::string& name, const std::string& summary, const std::string& key,
                      const std::string& argument_name, const std::string& argument_help)
{
    CLI::App* command = program.add_subcommand(name, summary);
    auto argument = std::make_shared<std::string>();
    auto no_wait = std::make_shared<bool>(false);
    command->add_option(argument_name, *argument, argument_help)->required()->option_text(" ");
    command->add_flag("--no-wait", *no_wait, "Do not wait until the SA has confirmed the new record");
    auto common = add_client_options(*command, one_host);
    command->callback([=] {
        ask_and_show(*common, {{"request", name}, {key, *argument}, {"no_wait", *no_wait}}, show_done);
    });
}

void add_flush(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("flush", "Make a host's address cache forget an entry, or all");
    auto what = std::make_shared<std::string>();
    command->add_option("WHAT", *what, "An address or a GID (default: everything but the host's own)")
        ->option_text(" ");
    auto common = add_client_options(*command, one_host);
    command->callback([=] { ask_and_show(*common, {{"request", "flush"}, {"what", *what}}, show_done); });
}

int run_control(const client_options& common, const std::vector<std::string>& words)
{
    const std::string line = console::value_or_throw(console::control_line(words));
    const json answer = client(common).ask({{"request", "control"}, {"command", line}});
    throw_if_refused(answer);
    if (common.as_json)
        console::show_json(std::cout, answer);
    else
        show_output(std::cout, answer);
    if (answer.value("failed", false)) return console::exit_failed;
    if (const std::string warning = console::control_warning(line); !warning.empty())
        std::cerr << "ats: " << world::printable_lines(warning) << '\n';
    return console::exit_ok;
}

void add_control(CLI::App& program, int& exit_code)
{
    CLI::App* command = program.add_subcommand("control", "Write a command to the control file of ats");
    auto words = std::make_shared<std::vector<std::string>>();
    auto is_list = std::make_shared<bool>(false);
    command->add_option("COMMAND", *words, "As in 'sa_verify_period 60 1'. Quote it when a word begins with -")
        ->option_text("...");
    command->add_flag("--list", *is_list, "Show the commands and what each does");
    auto common = add_client_options(*command, one_host);
    command->callback([=, &exit_code] {
        if (*is_list || *words == std::vector<std::string>{"help"})
            std::cout << console::list_control_commands();
        else
            exit_code = run_control(*common, *words);
    });
}

void add_trace(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("trace", "Set how much ats writes to the kernel log");
    auto level = std::make_shared<int>();
    command->add_option("LEVEL", *level, "0 nothing, 1 errors, 2 warnings, 4 progress, 5 everything")
        ->required()
        ->check(console::number_from(0, 5))
        ->option_text(" ");
    auto common = add_client_options(*command, "On this host only (default: all hosts)");
    command->callback([=] { ask_and_show(*common, {{"request", "trace"}, {"level", *level}}, show_done); });
}

void add_link(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("link", "Bring a port's link up or down (embedded fabric)");
    command->require_subcommand(1);
    for (const std::string direction : {"up", "down"}) {
        CLI::App* way = command->add_subcommand(direction, "Bring the link " + direction);
        auto hca = std::make_shared<std::string>();
        auto port = std::make_shared<int>(1);
        way->add_option("--hca", *hca, "The HCA (default: the host's first)")->option_text("NAME");
        way->add_option("--port", *port, "The port (default: 1)")->option_text("N");
        auto common = add_client_options(*way, one_host);
        way->callback([=] {
            ask_and_show(*common, {{"request", "link"}, {"direction", direction}, {"hca", *hca}, {"port", *port}},
                         show_done);
        });
    }
}

// An action of the SA, whose argument becomes the `key` of its request. Returns the argument's option.
CLI::Option* add_sa_action(CLI::App& sa, const std::string& action, const std::string& summary, const std::string& key,
                           const std::string& argument_name, const std::string& argument_help)
{
    CLI::App* command = sa.add_subcommand(action, summary);
    auto argument = std::make_shared<std::string>();
    CLI::Option* option = command->add_option(argument_name, *argument, argument_help)->option_text(" ");
    auto common = add_client_options(*command, no_host);
    command->callback([=] {
        ask_and_show(*common, {{"request", "sa"}, {"action", action}, {key, *argument}}, show_done);
    });
    return option;
}

void add_sa(CLI::App& program, int& exit_code)
{
    CLI::App* sa =
        program.add_subcommand("sa", "Look into the Subnet Administrator, or upset that of an embedded fabric");
    sa->require_subcommand(1);
    add_sa_show(*sa, exit_code);
    add_sa_action(*sa, "forget", "Make it forget a GID's record, or all records", "gid", "GID",
                  "The ServiceGID (default: all records)");
    add_sa_action(*sa, "silence", "Make it answer nothing, or answer again", "state", "STATE", "on or off")
        ->required()
        ->check(console::one_of({"on", "off"}));
    add_sa_action(*sa, "status", "Make it answer everything with a status word", "word", "WORD",
                  "16 bits, as in 0x0300; 0 to answer as it should again")
        ->required();
}

} // namespace

void add_orders(CLI::App& program, int& exit_code)
{
    add_control(program, exit_code);
    add_flush(program);
    add_trace(program);
    add_record_order(program, "set-name", "Change the host name that is registered", "name", "NAME",
                     "Up to 30 bytes of UTF-8, no blanks");
    add_record_order(program, "set-address", "Change the IPv4 address that is registered", "address", "ADDRESS",
                     "As in 10.0.0.9");
    add_link(program);
    add_sa(program, exit_code);
}

} // namespace cli
