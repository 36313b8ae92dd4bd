#include "cli/client/client-commands.h"
#include "console/failure.h"
#include "console/table.h"
#include "console/usage.h"

#include <chrono>
#include <iostream>
#include <optional>
#include <thread>
#include <unistd.h>

#include "cli/client/client.h"
#include "cli/client/full-screen.h"
#include "cli/client/sa-show.h"
#include "cli/client/show.h"
#include "console/identity.h"
#include "console/log-filter.h"
#include "host/kernel/log.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

constexpr int on_one_line = -1;

struct resolve_options {
    std::vector<std::string> asked;
    bool verify = false;
    bool cached = false;
};

// Whether everything that was asked for was found, and proved right where that was asked for too.
bool is_yes(const json& answer)
{
    return answer.at("status") == "ok" && (!answer.contains("verified") || answer.at("verified") == true);
}

// True if `resolve` takes the text for a host name. A text of digits and points is an address, perhaps a mistyped one.
bool is_name_to_resolve(const std::string& asked)
{
    return asked.find_first_not_of("0123456789.") != std::string::npos && console::is_host_name(asked);
}

// The SA's answer about a host name: one for every record of that name, as the answers about addresses are.
json resolve_name(client& service, const std::string& host_name)
{
    json answer = service.ask({{"request", "resolve"}, {"name", host_name}});
    if (answer.value("real", false)) {
        const auto started = std::chrono::steady_clock::now();
        const json records = real_records_of(host_name);
        const auto took = std::chrono::steady_clock::now() - started;
        answer = {{"status", records.empty() ? "not found" : "ok"},
                  {"source", "SA"},
                  {"reason", "the SA holds no record of that host name"},
                  {"microseconds", std::chrono::duration_cast<std::chrono::microseconds>(took).count()},
                  {"matches", records}};
    }
    if (answer.value("status", "") != "ok") return json::array({answer});
    json found = json::array();
    for (json match : answer.at("matches")) {
        for (const char* key : {"status", "source", "microseconds"}) match[key] = answer.at(key);
        match["found"] = match.at("gid");
        found.push_back(std::move(match));
    }
    return found;
}

json resolve_one(client& service, const resolve_options& options, const std::string& request, const std::string& key,
                 const std::string& asked)
{
    if (request == "resolve" && is_name_to_resolve(asked)) {
        if (options.cached)
            throw console::failure(console::exit_usage, "--cached is for addresses: no cache knows host names");
        return resolve_name(service, asked);
    }
    return json::array(
        {service.ask({{"request", request}, {key, asked}, {"verify", options.verify}, {"cached", options.cached}})});
}

// Several questions, one or more answers each. A malformed one does not keep the others from being asked.
int run_resolutions(const client_options& common, const resolve_options& options, const std::string& request,
                    const std::string& key)
{
    client service(common);
    json answers = json::array();
    int worst = console::exit_ok;
    for (const std::string& asked : options.asked)
        for (json& answer : resolve_one(service, options, request, key, asked)) {
            answer["asked"] = asked;
            if (answer.contains("error"))
                worst = std::max<int>(worst, answer.value("exit_code", int{console::exit_failed}));
            else if (!is_yes(answer))
                worst = std::max<int>(worst, console::exit_failed);
            if (common.as_json)
                answers.push_back(answer);
            else if (answer.contains("error"))
                std::cerr << "ats: " << world::printable_lines(answer.at("error").get<std::string>()) << std::endl;
            else
                show_resolution(std::cout, in_wanted_notation(answer, common));
        }
    if (common.as_json) console::show_json(std::cout, answers);
    return worst;
}

void add_resolutions(CLI::App& program, int& exit_code, const std::string& name, const std::string& summary,
                     const std::string& key, const std::string& argument, const std::string& argument_help)
{
    CLI::App* command = program.add_subcommand(name, summary);
    auto options = std::make_shared<resolve_options>();
    command->add_option(argument, options->asked, argument_help)->required()->option_text("...");
    auto* verify = command->add_flag("--verify", options->verify,
                                     "When the cache answers, ask the SA too, and say whether it was right");
    verify->option_text(" "); // what excludes what is for the error line
    command->add_flag("--cached", options->cached, "Ask nobody: look in the cache only")
        ->excludes(verify)
        ->option_text(" ");
    auto common = add_client_options(*command, one_host);
    add_gid_format_option(*command, *common);
    command->callback([=, &exit_code] { exit_code = run_resolutions(*common, *options, name, key); });
}

// One after another until interrupted or unable to write: in the window of a terminal, or as documents.
void watch_status(const client_options& common)
{
    constexpr std::chrono::seconds redraw_period(1);
    client service(common);
    std::optional<full_screen> screen;
    while (std::cout) {
        const json answer = service.ask({{"request", "status"}});
        throw_if_refused(answer);
        if (common.as_json) {
            console::show_json(std::cout, answer, on_one_line);
            std::cout << std::flush;
        } else if (isatty(STDOUT_FILENO) == 1) {
            if (!screen) screen.emplace();
            const auto [columns, lines] = screen->window();
            screen->draw(fit_status(in_wanted_notation(answer, common), columns, lines));
        } else {
            show_status(std::cout, in_wanted_notation(answer, common));
            std::cout << std::flush;
        }
        std::this_thread::sleep_for(redraw_period);
    }
}

void add_status(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("status", "Show hosts, ports, addresses, counters and caches");
    auto watch = std::make_shared<bool>(false);
    command->add_flag("--watch", *watch, "Show it anew every second until interrupted, on a terminal in its window");
    auto common = add_client_options(*command, "Show this host only");
    add_gid_format_option(*command, *common);
    command->callback([=] {
        if (*watch)
            watch_status(*common);
        else
            ask_and_show(*common, {{"request", "status"}}, show_status);
    });
}

struct log_options {
    bool follow = false;
    int level = console::trace_level_everything;
};

std::string log_text(const json& line)
{
    if (line.contains("dropped")) return kernel::format_dropped(line["dropped"].get<uint64_t>());
    return line["line"].get<std::string>();
}

void show_log(const client_options& common, const log_options& options)
{
    client service(common);
    json line = service.ask({{"request", "log"}, {"follow", options.follow}, {"level", options.level}});
    throw_if_refused(line);
    for (; !line.contains("end"); line = service.next()) {
        if (common.as_json)
            console::show_json(std::cout, line, on_one_line);
        else
            std::cout << world::printable_lines(log_text(line)) << '\n';
        if (options.follow && !std::cout.flush()) return;
    }
}

void add_log(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("log", "Show a host's kernel log");
    auto options = std::make_shared<log_options>();
    command->add_flag("-f,--follow", options->follow, "Go on with new lines until interrupted");
    command
        ->add_option("--level", options->level,
                     "Only trace lines up to this level: 1 errors, 2 warnings, 4 progress, 5 all (default)")
        ->check(console::number_from(0, console::trace_level_everything))
        ->option_text("N");
    auto common = add_client_options(*command, one_host);
    command->callback([=] { show_log(*common, *options); });
}

} // namespace

void add_queries(CLI::App& program, int& exit_code)
{
    add_status(program);
    add_resolutions(program, exit_code, "resolve", "Find the GID of IPv4 addresses or host names", "address", "ADDRESS",
                    "As in 10.0.0.2, or a host name");
    add_resolutions(program, exit_code, "reverse", "Find the IPv4 address of GIDs", "gid", "GID",
                    "0x and up to 32 hexadecimal digits, or as in fe80::1");
    add_log(program);
}

} // namespace cli
