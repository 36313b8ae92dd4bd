#include "cli/commands/service-client.h"

#include <iostream>

#include <fmt/format.h>

#include "cli/socket/service-origin.h"
#include "client/parallel-requests.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/table.h"
#include "console/usage.h"

namespace cli
{

namespace
{

using ats::error_kind;

int half_timeout_ms(const client_options& options)
{
    return static_cast<int>(options.timeout_seconds * 1000 / 2);
}

// Returns the error for a failed call of libatsclient. The error says what the user can do. `is_asked` means that the
// request was sent before the failure.
ats::error library_error(const client_options& options, ats_status_t status, bool is_asked)
{
    const std::string service = "the service on " + options.socket;
    switch (status) {
    case ATS_NO_ANSWER: {
        const std::string seconds = fmt::format("{:g} s", options.timeout_seconds);
        return {error_kind::unreachable,
                service + " shows no sign of life for " + seconds + ": " + how_to_wake(options.socket)};
    }
    case ATS_NOT_CONNECTED:
        if (is_asked) return {error_kind::unreachable, service + " hung up: " + where_to_look(options.socket)};
        return {error_kind::unreachable, fmt::format("{} ({})", ats_last_error(), how_to_start(options.socket))};
    case ATS_INVALID:
        return {error_kind::unreachable,
                "the program that listens on " + options.socket + " is not 'ats run': name another --socket"};
    case ATS_REFUSED:
        return {error_kind::unreachable, ats_last_error()};
    default:
        return ats::error(ats_last_error());
    }
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
                    "Give up when the service shows no sign of life for this time (default: 5)")
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
                                                      "understand: do both have the same version?");
        }
    }));
}

json with_gid_format(json answer, const client_options& options)
{
    if (options.gid_format == "ipv6") console::use_ipv6_notation(answer);
    return answer;
}

ats::result<service_client> service_client::open(const client_options& options)
{
    ats_client_t* library = nullptr;
    if (ats_open(&library, options.socket.c_str()) != ATS_OK) return ats::fail(error_kind::invalid, ats_last_error());
    return service_client(options, library_client(library));
}

// Adds the host to the request. Fails (invalid) if the request cannot be a line of the protocol.
ats::result<std::string> service_client::line_of(json request) const
{
    if (!options_.host.empty()) request["host"] = options_.host;
    try {
        return request.dump();
    } catch (const json::type_error&) {
        return ats::fail(error_kind::invalid, "an argument holds bytes that are not text (UTF-8)");
    }
}

ats::result<json> service_client::ask(json request)
{
    const ats::result<std::string> line = line_of(std::move(request));
    if (!line) return ats::pass_on(line);
    const ats_status_t status = ats_request_begin(library_.get(), line->c_str(), 2 * half_timeout_ms(options_));
    if (status != ATS_OK) return tl::make_unexpected(library_error(options_, status, false));
    return next();
}

ats::result<json> service_client::ask_accepted(json request)
{
    ats::result<json> answer = ask(std::move(request));
    if (!answer || !answer->contains("error")) return answer;
    const int code = answer->value("exit_code", int{console::exit_failed});
    return ats::fail(console::error_kind_of(code), answer->at("error").get<std::string>());
}

ats::result<json> service_client::next()
{
    return receive().map([](const reply& reply) { return reply.answer; });
}

ats::result<uint64_t> service_client::send(json request)
{
    const ats::result<std::string> line = line_of(std::move(request));
    if (!line) return ats::pass_on(line);
    uint64_t id = 0;
    const ats_status_t status = client::add_request(library_.get(), line->c_str(), 2 * half_timeout_ms(options_), id);
    if (status != ATS_OK) return tl::make_unexpected(library_error(options_, status, false));
    return id;
}

ats::result<service_client::reply> service_client::receive()
{
    char* line = nullptr;
    uint64_t id = 0;
    ats_status_t status = ATS_NO_ANSWER;
    while ((status = client::next_line(library_.get(), half_timeout_ms(options_), id, &line)) == ATS_NO_ANSWER)
        if (!is_alive()) break;
    if (status != ATS_OK) return tl::make_unexpected(library_error(options_, status, true));
    const std::unique_ptr<char, decltype(&ats_free)> owner(line, ats_free);
    return reply{id, json::parse(line)};
}

// Pings the service on a second connection. Any reaction shows that the service works: an answer, a refusal, or a
// closed connection.
bool service_client::is_alive() const
{
    const ats::result<service_client> second = open(options_);
    if (!second) return false;
    char* answer = nullptr;
    const int timeout_ms = half_timeout_ms(options_);
    const ats_status_t status = ats_request(second->library_.get(), R"({"request":"ping"})", timeout_ms, &answer);
    ats_free(answer);
    return status != ATS_NO_ANSWER;
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
    ats::result<service_client> service = service_client::open(options);
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
