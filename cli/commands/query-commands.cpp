#include "cli/commands/client-commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <optional>
#include <thread>
#include <unistd.h>

#include "cli/commands/answers-in-order.h"
#include "cli/commands/full-screen.h"
#include "cli/commands/question-list.h"
#include "cli/commands/service-client.h"
#include "cli/commands/show.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/identity.h"
#include "console/log-filter.h"
#include "console/table.h"
#include "console/usage.h"
#include "host/kernel/log.h"
#include "host/world/printable.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

struct resolve_options {
    std::vector<std::string> arguments;
    bool must_verify = false;
    bool cache_only = false;
    bool is_fresh = false;
};

// Returns true if the lookup found a result and, with --verify, the SA confirmed it.
bool is_success(const json& answer)
{
    return answer.at("status") == "ok" && (!answer.contains("verified") || answer.at("verified") == true);
}

// Returns true if `resolve` treats the text as a host name. A text of digits and points counts as an address, even if
// it is not valid.
bool is_name_to_resolve(const std::string& question)
{
    return question.find_first_not_of("0123456789.") != std::string::npos && console::is_host_name(question);
}

// Returns an array with one answer for each record of a host name. `answer` is the service's answer about this name.
// Without a record, the array has one answer, which gives the reason.
ats::result<json> answers_about_name(const json& answer, const std::string& host_name)
{
    if (answer.value("real", false))
        return ats::fail("this service is older than the command and finds no host names: use 'ats sa show --name " +
                         host_name + "'");
    if (answer.value("status", "") != "ok") return json::array({answer});
    json answers = json::array();
    for (json record : answer.at("matches")) {
        for (const char* key : {"status", "source", "microseconds"}) record[key] = answer.at(key);
        record["found"] = record.at("gid");
        answers.push_back(std::move(record));
    }
    return answers;
}

// Describes the command `resolve`, `reverse` or `path`.
struct resolution_command {
    std::string name; // the request has the same name
    std::string key;  // the key of the question in the request; "" if the question may be an address or a GID
    std::string summary;
    std::string argument;
    std::string argument_help;
};

// Returns the key of the question in the request. A text of digits and points counts as an address, even if it is not a
// valid one.
std::string key_of(const resolution_command& command, const std::string& question)
{
    if (!command.key.empty()) return command.key;
    return question.find_first_not_of("0123456789.") == std::string::npos ? "address" : "gid";
}

bool is_about_name(const resolution_command& command, const std::string& question)
{
    return command.name == "resolve" && is_name_to_resolve(question);
}

bool is_utf8(const std::string& text)
{
    try {
        return !json(text).dump().empty();
    } catch (const json::type_error&) {
        return false;
    }
}

// Returns the error if a question cannot be sent. A service may close the connection, which the other questions use,
// too, if a line is too long. Therefore the command refuses a long question itself, with the service's text.
std::optional<ats::error> fault_of(const resolution_command& command, const std::string& key,
                                   const std::string& question)
{
    constexpr size_t longest_question_bytes = 256;
    if (command.name == "path" && key == "gid" && !world::parse_gid(question))
        return ats::error(ats::error_kind::invalid,
                          console::quote(question) + " is neither an IPv4 address nor a GID: write it like 10.0.0.1 or "
                                                     "like fe80::1");
    if (!is_utf8(question))
        return ats::error(ats::error_kind::invalid,
                          console::quote(question) + " holds bytes that are not text (UTF-8)");
    if (question.size() <= longest_question_bytes) return std::nullopt;
    const auto error_of = [](const auto& value) { return value ? std::nullopt : std::optional(value.error()); };
    return key == "gid" ? error_of(console::gid_of(question)) : error_of(console::address_of(question));
}

// Returns the request for a question. If the question is wrong, returns its refusal.
json request_about(const resolve_options& options, const resolution_command& command, const std::string& question)
{
    if (is_about_name(command, question)) {
        if (options.cache_only)
            return refusal_answer({ats::error_kind::invalid, "--cached is for addresses: no cache knows host names"});
        return {{"request", "resolve"}, {"name", question}};
    }
    const std::string key = key_of(command, question);
    if (const std::optional<ats::error> fault = fault_of(command, key, question)) return refusal_answer(*fault);
    json request = {{"request", command.name}, {key, question}, {"cached", options.cache_only}};
    if (options.must_verify) request["verify"] = true;
    if (options.is_fresh) request["fresh"] = true;
    return request;
}

int exit_code_of(const json& answer)
{
    if (answer.contains("error")) return answer.value("exit_code", int{console::exit_failed});
    return is_success(answer) ? console::exit_ok : console::exit_failed;
}

void show_answer_or_refusal(const client_options& common, const resolution_command& command, const json& answer)
{
    if (answer.contains("error"))
        std::cerr << "ats: " << world::printable_lines(answer.at("error").get<std::string>()) << std::endl;
    else if (command.name == "path")
        show_path(std::cout, with_gid_format(answer, common));
    else
        show_resolution(std::cout, with_gid_format(answer, common));
}

// Asks all questions, even if some of them are refused. Returns the highest exit code.
ats::result<int> run_resolutions(const client_options& common, const resolve_options& options,
                                 const resolution_command& command)
{
    const auto questions = with_questions_of_stdin(options.arguments, command.argument);
    if (!questions) return ats::pass_on(questions);
    ats::result<service_client> service = service_client::open(common);
    if (!service) return ats::pass_on(service);
    answers_in_order service_answers(*service, questions->size(), [&](size_t question) {
        return request_about(options, command, (*questions)[question]);
    });
    json all_answers = json::array();
    int exit_code = console::exit_ok;
    for (const std::string& question : *questions) {
        if (!service_answers.is_next_ready()) std::cout << std::flush;
        ats::result<json> answers = service_answers.next();
        if (answers && is_about_name(command, question))
            answers = answers_about_name(*answers, question);
        else if (answers)
            answers = json::array({*answers});
        if (!answers) return ats::pass_on(answers);
        for (json& answer : *answers) {
            answer["asked"] = question;
            exit_code = std::max(exit_code, exit_code_of(answer));
            if (common.as_json)
                all_answers.push_back(answer);
            else
                show_answer_or_refusal(common, command, answer);
        }
    }
    if (common.as_json) console::show_json(std::cout, all_answers);
    return exit_code;
}

// Adds the options that choose between the cache and the SA. They exclude each other.
void add_source_options(CLI::App& command, resolve_options& options, const resolution_command& description)
{
    std::vector<CLI::Option*> choices;
    if (description.name != "path")
        choices.push_back(command.add_flag("--verify", options.must_verify,
                                           "If the cache answers, also ask the SA, and print if the cache was right"));
    if (description.name != "reverse")
        choices.push_back(command.add_flag("--fresh", options.is_fresh, "Ask the SA, even if the cache has an answer"));
    choices.push_back(command.add_flag("--cached", options.cache_only, "Ask only the cache"));
    for (CLI::Option* choice : choices) {
        for (CLI::Option* other : choices)
            if (other != choice) choice->excludes(other);
        choice->option_text(" "); // the help then does not say what excludes what; the error message does
    }
}

void add_resolutions(CLI::App& program, ats::result<int>& outcome, const resolution_command& description)
{
    CLI::App* command = program.add_subcommand(description.name, description.summary);
    auto options = std::make_shared<resolve_options>();
    command
        ->add_option(description.argument, options->arguments,
                     description.argument_help + "; - means the lines of stdin")
        ->required()
        ->option_text("...");
    add_source_options(*command, *options, description);
    auto common = add_client_options(*command, one_host);
    add_gid_format_option(*command, *common);
    set_client_action(*command, outcome, [=] { return run_resolutions(*common, *options, description); });
}

// Shows the status every second, until a signal ends the program or the output fails. Returns an error if the service
// does not answer or refuses the request. On a terminal, fits the text into the window; JSON
// stays as it is.
ats::result<int> watch_status(const client_options& common)
{
    constexpr std::chrono::seconds redraw_period(1);
    ats::result<service_client> service = service_client::open(common);
    if (!service) return ats::pass_on(service);
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    std::optional<full_screen> screen;
    while (std::cout) {
        const ats::result<json> answer = service->ask_accepted({{"request", "status"}});
        if (!answer) return ats::pass_on(answer);
        if (common.as_json) {
            console::show_json(std::cout, *answer, console::on_one_line);
        } else if (is_terminal) {
            if (!screen) screen.emplace();
            const auto [columns, lines] = screen->window();
            screen->draw(fit_status(with_gid_format(*answer, common), columns, lines));
        } else {
            show_status(std::cout, with_gid_format(*answer, common));
        }
        std::cout << std::flush;
        std::this_thread::sleep_for(redraw_period);
    }
    return console::exit_ok;
}

void add_status(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("status", "Show hosts, ports, addresses, counters and caches");
    auto watch = std::make_shared<bool>(false);
    command->add_flag("--watch", *watch,
                      "Show it again every second until interrupted; on a terminal, fit it into the window");
    auto common = add_client_options(*command, "Show this host only");
    add_gid_format_option(*command, *common);
    set_client_action(*command, outcome, [=] {
        return *watch ? watch_status(*common) : ask_and_show(*common, {{"request", "status"}}, show_status);
    });
}

void show_metrics(std::ostream& output, const json& answer)
{
    output << answer.at("text").get<std::string>();
}

void add_metrics(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command =
        program.add_subcommand("metrics", "Show the service's counters in the text format of Prometheus");
    auto common = add_client_options(*command, no_host);
    set_client_action(*command, outcome, [=] { return ask_and_show(*common, {{"request", "metrics"}}, show_metrics); });
}

struct log_options {
    bool is_endless = false;
    int level = console::trace_level_everything;
};

std::string log_text(const json& line)
{
    if (line.contains("dropped")) return kernel::format_dropped(line["dropped"].get<uint64_t>());
    return line["line"].get<std::string>();
}

ats::result<int> show_log(const client_options& common, const log_options& options)
{
    ats::result<service_client> service = service_client::open(common);
    if (!service) return ats::pass_on(service);
    ats::result<json> line =
        service->ask_accepted({{"request", "log"}, {"follow", options.is_endless}, {"level", options.level}});
    while (line && !line->contains("end")) {
        if (common.as_json)
            console::show_json(std::cout, *line, console::on_one_line);
        else
            std::cout << world::printable_lines(log_text(*line)) << '\n';
        if (options.is_endless && !std::cout.flush()) return console::exit_ok; // main() reports the failed output
        line = service->next();
    }
    if (!line) return ats::pass_on(line);
    return console::exit_ok;
}

void add_log(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("log", "Show a host's kernel log");
    auto options = std::make_shared<log_options>();
    command->add_flag("-f,--follow", options->is_endless, "Continue with new lines until interrupted");
    command
        ->add_option("--level", options->level,
                     "Only trace lines up to this level: 1 errors, 2 warnings, 4 progress, 5 all (default)")
        ->check(console::number_from(0, console::trace_level_everything))
        ->option_text("N");
    auto common = add_client_options(*command, one_host);
    set_client_action(*command, outcome, [=] { return show_log(*common, *options); });
}

} // namespace

void add_queries(CLI::App& program, ats::result<int>& outcome)
{
    add_status(program, outcome);
    add_resolutions(program, outcome,
                    {.name = "resolve",
                     .key = "address",
                     .summary = "Find the GID of IPv4 addresses or host names",
                     .argument = "ADDRESS",
                     .argument_help = "For example 10.0.0.2, or a host name"});
    add_resolutions(program, outcome,
                    {.name = "reverse",
                     .key = "gid",
                     .summary = "Find the IPv4 address of GIDs",
                     .argument = "GID",
                     .argument_help = "0x and up to 32 hexadecimal digits, or like fe80::1"});
    add_resolutions(program, outcome,
                    {.name = "path",
                     .key = "",
                     .summary = "Find the path to IPv4 addresses or GIDs",
                     .argument = "DESTINATION",
                     .argument_help = "An address like 10.0.0.2, or a GID like fe80::1"});
    add_metrics(program, outcome);
    add_log(program, outcome);
}

} // namespace cli
