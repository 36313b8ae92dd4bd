#include "cli/client/client.h"

#include <iostream>

#include "cli/socket/service-origin.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/table.h"
#include "console/usage.h"

namespace cli
{

namespace
{

using ats::error_kind;

std::chrono::milliseconds half_timeout(const client_options& options)
{
    return std::chrono::milliseconds(static_cast<int64_t>(options.timeout_seconds * 1000 / 2));
}

ats::result<line_channel> open_channel(const client_options& options, std::chrono::milliseconds patience)
{
    ats::result<descriptor> socket = connect_to(options.socket, patience);
    if (!socket) return ats::pass_on(socket);
    return line_channel(std::move(*socket));
}

} // namespace

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

void set_client_action(CLI::App& command, ats::result<int>& outcome, std::function<ats::result<int>()> body)
{
    command.callback(console::command_callback(outcome, [body = std::move(body)]() -> ats::result<int> {
        try {
            return body();
        } catch (const json::exception&) {
            return ats::fail(error_kind::unreachable, "the service gave an answer that this command does not "
                                                      "understand: are both of one version?");
        }
    }));
}

json with_gid_format(json answer, const client_options& options)
{
    if (options.gid_format == "ipv6") console::use_ipv6_notation(answer);
    return answer;
}

client::client(const client_options& options, line_channel channel) : options_(options), channel_(std::move(channel)) {}

ats::result<client> client::open(const client_options& options)
{
    ats::result<line_channel> channel = open_channel(options, 2 * half_timeout(options));
    if (!channel) return ats::pass_on(channel);
    return client(options, std::move(*channel));
}

ats::result<json> client::ask(json request)
{
    if (!options_.host.empty()) request["host"] = options_.host;
    std::string line;
    try {
        line = request.dump();
    } catch (const json::type_error&) {
        return ats::fail(error_kind::invalid, "an argument holds bytes that are no text (UTF-8)");
    }
    channel_.write(line); // if this fails, next() fails too
    return next();
}

ats::result<json> client::ask_accepted(json request)
{
    ats::result<json> answer = ask(std::move(request));
    if (!answer || !answer->contains("error")) return answer;
    const int code = answer->value("exit_code", int{console::exit_failed});
    return ats::fail(console::error_kind_of(code), answer->at("error").get<std::string>());
}

ats::result<json> client::next()
{
    using arrival = line_channel::arrival;
    std::string line;
    arrival reading = channel_.read(line, half_timeout(options_));
    while (reading == arrival::silent) {
        if (!is_alive()) return tl::make_unexpected(no_sign_of_life(options_.socket, 2 * half_timeout(options_)));
        reading = channel_.read(line, half_timeout(options_));
    }
    if (reading == arrival::gone)
        return ats::fail(error_kind::unreachable,
                         "the service on " + options_.socket + " hung up: " + where_to_look(options_.socket));
    json answer = json::parse(line, nullptr, false);
    if (!answer.is_object())
        return ats::fail(error_kind::unreachable,
                         "what listens on " + options_.socket + " is no 'ats run': name another --socket");
    return answer;
}

// A refusal and a hang-up are signs of life too.
bool client::is_alive() const
{
    ats::result<line_channel> channel = open_channel(options_, half_timeout(options_));
    if (!channel) return false;
    std::string line;
    channel->write(R"({"request":"ping"})");
    return channel->read(line, half_timeout(options_)) != line_channel::arrival::silent;
}

void show_answer(const client_options& options, const json& answer, show_text_t show_text)
{
    if (options.as_json)
        console::show_json(std::cout, answer);
    else
        show_text(std::cout, with_gid_format(answer, options));
}

ats::result<json> ask_once(const client_options& options, const json& request)
{
    ats::result<client> service = client::open(options);
    if (!service) return ats::pass_on(service);
    return service->ask_accepted(request);
}

ats::result<int> ask_and_show(const client_options& options, const json& request, show_text_t show_text)
{
    const ats::result<json> answer = ask_once(options, request);
    if (!answer) return ats::pass_on(answer);
    show_answer(options, *answer, show_text);
    return console::exit_ok;
}

} // namespace cli
