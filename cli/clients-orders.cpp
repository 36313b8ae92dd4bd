#include "cli/clients.h"

#include "cli/client.h"
#include "cli/show.h"

namespace cli
{

namespace
{

// A command with one argument, which becomes a request of the command's name and a line of answer.
template <class argument_t>
CLI::Option* add_order(CLI::App& program, const std::string& name, const std::string& summary, const std::string& key,
                       const std::string& key_help)
{
    CLI::App* command = program.add_subcommand(name, summary);
    auto common = add_client_options(*command, true);
    auto argument = std::make_shared<argument_t>();
    command->callback([=] { ask_and_show(*common, {{"request", name}, {key, *argument}}, show_done); });
    return command->add_option(key, *argument, key_help)->required();
}

void add_control(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("control", "Write a command to the control file of ats");
    auto common = add_client_options(*command, true);
    auto words = std::make_shared<std::vector<std::string>>();
    command
        ->add_option("command", *words,
                     "As in 'sa_verify_period 60 1'; 'help' lists the commands (in quotation marks, or after --, when "
                     "a word begins with a dash)")
        ->required();
    command->callback([=] {
        std::string line;
        for (const std::string& word : *words) line += (line.empty() ? "" : " ") + word;
        ask_and_show(*common, {{"request", "control"}, {"command", line}}, show_output);
    });
}

void add_trace(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("trace", "Set how much ats writes to the kernel log");
    auto common = add_client_options(*command, false);
    command->add_option("--host", common->host, "On this host only (default: all hosts)");
    auto level = std::make_shared<int>();
    command->add_option("level", *level, "0 nothing, 1 errors, 2 warnings too, 4 progress, 5 everything")
        ->required()
        ->check(CLI::Range(0, 5));
    command->callback([=] { ask_and_show(*common, {{"request", "trace"}, {"level", *level}}, show_done); });
}

void add_link(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("link", "Bring a port's link up or down (embedded fabric)");
    command->require_subcommand(1);
    for (const std::string direction : {"up", "down"}) {
        CLI::App* way = command->add_subcommand(direction, "Bring the link " + direction);
        auto common = add_client_options(*way, true);
        auto hca = std::make_shared<std::string>();
        auto port = std::make_shared<int>(1);
        way->add_option("--hca", *hca, "The HCA (default: the host's first)");
        way->add_option("--port", *port, "The port, from 1")->capture_default_str();
        way->callback([=] {
            ask_and_show(*common, {{"request", "link"}, {"direction", direction}, {"hca", *hca}, {"port", *port}},
                         show_done);
        });
    }
}

// `ats sa ACTION [ARGUMENT]`; `key` null: an action without an argument.
CLI::Option* add_sa_action(CLI::App& sa, const std::string& action, const std::string& summary, const char* key,
                           const std::string& key_help, void (*show)(std::ostream&, const json&))
{
    CLI::App* command = sa.add_subcommand(action, summary);
    auto common = add_client_options(*command, false);
    auto argument = std::make_shared<std::string>();
    command->callback([=] {
        json request = {{"request", "sa"}, {"action", action}};
        if (key) request[key] = *argument;
        ask_and_show(*common, request, show);
    });
    return key ? command->add_option(key, *argument, key_help) : nullptr;
}

void add_sa(CLI::App& program)
{
    CLI::App* sa = program.add_subcommand("sa", "Look into the Subnet Administrator, or upset it (embedded fabric)");
    sa->require_subcommand(1);
    add_sa_action(*sa, "show", "List its ServiceRecords", nullptr, "", show_records);
    add_sa_action(*sa, "forget", "Make it forget a GID's record, or all records", "gid",
                  "The ServiceGID (default: all records)", show_done);
    add_sa_action(*sa, "silence", "Make it answer nothing, or answer again", "state", "on or off", show_done)
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    add_sa_action(*sa, "status", "Make it answer everything with a status word", "word",
                  "16 bits, as in 0x0300; 0 to answer as it should again", show_done)
        ->required();
}

} // namespace

void add_orders(CLI::App& program)
{
    add_control(program);
    add_trace(program);
    add_order<std::string>(program, "set-name", "Change the host name that is registered", "name",
                           "Up to 30 characters, no blanks");
    add_order<std::string>(program, "set-address", "Change the IPv4 address that is registered", "address",
                           "As in 10.0.0.9");
    add_link(program);
    add_sa(program);
}

void add_clients(CLI::App& program, int& exit_code)
{
    add_queries(program, exit_code);
    add_orders(program);
}

} // namespace cli
