#include "cli/client/client.h"
#include "console/failure.h"
#include "console/table.h"
#include "console/usage.h"

#include <iostream>

#include "cli/client/show.h"
#include "cli/socket/service-origin.h"
#include "console/gids.h"

namespace cli
{

std::shared_ptr<client_options> add_client_options(CLI::App& command, const std::string& host_meaning)
{
    auto options = std::make_shared<client_options>();
    if (!host_meaning.empty()) command.add_option("--host", options->host, host_meaning)->option_text("NAME");
    command.add_flag("--json", options->as_json, "Print JSON");
    command.add_option("--socket", options->socket, "The socket of 'ats run' (default: " + options->socket + ")")
        ->option_text("PATH");
    command
        .add_option("--timeout", options->timeout_seconds,
                    "Give up on a service without a sign of life for so long (default: 5)")
        ->check(console::number_from(0.1, 3600.0))
        ->option_text("SECONDS");
    return options;
}

void add_gid_format_option(CLI::App& command, client_options& options)
{
    command.add_option("--gid-format", options.gid_format, "Write GIDs as hex (default) or like ipv6 addresses")
        ->check(console::one_of({"hex", "ipv6"}))
        ->option_text("FORMAT");
}

json in_wanted_notation(json answer, const client_options& options)
{
    if (options.gid_format == "ipv6") console::use_ipv6_notation(answer);
    return answer;
}

client::client(const client_options& options)
    : options_(options), half_timeout_(static_cast<int64_t>(options.timeout_seconds * 1000 / 2)),
      channel_(console::value_or_throw(connect_to(options.socket, 2 * half_timeout_)))
{
}

json client::ask(json request)
{
    if (!options_.host.empty()) request["host"] = options_.host;
    std::string line;
    try {
        line = request.dump();
    } catch (const json::type_error&) {
        throw console::failure(console::exit_usage, "an argument holds bytes that are no text (UTF-8)");
    }
    channel_.write(line); // whether it got there shows in the answer
    return next();
}

json client::next()
{
    std::string line;
    line_channel::arrival got = line_channel::arrival::silent;
    while ((got = channel_.read(line, half_timeout_)) == line_channel::arrival::silent)
        if (!is_alive()) throw console::failure(no_sign_of_life(options_.socket, 2 * half_timeout_));
    if (got == line_channel::arrival::gone)
        throw console::failure(console::exit_unreachable,
                               "the service on " + options_.socket + " hung up: " + where_to_look(options_.socket));
    json answer = json::parse(line, nullptr, false);
    if (!answer.is_object())
        throw console::failure(console::exit_unreachable,
                               "what listens on " + options_.socket + " is no 'ats run': name another --socket");
    return answer;
}

// A refusal and a hang-up are signs of life as well.
bool client::is_alive() const
{
    ats::result<descriptor> connection = connect_to(options_.socket, half_timeout_);
    if (!connection) return false;
    line_channel channel(std::move(*connection));
    std::string line;
    channel.write(R"({"request":"ping"})");
    return channel.read(line, half_timeout_) != line_channel::arrival::silent;
}

void throw_if_refused(const json& answer)
{
    if (answer.contains("error"))
        throw console::failure(static_cast<console::exit_code>(answer.value("exit_code", int{console::exit_failed})),
                               answer["error"].get<std::string>());
}

void ask_and_show(const client_options& options, const json& request, void (*show)(std::ostream&, const json&))
{
    client service(options);
    const json answer = service.ask(request);
    throw_if_refused(answer);
    if (options.as_json)
        console::show_json(std::cout, answer);
    else
        show(std::cout, in_wanted_notation(answer, options));
}

} // namespace cli
