// ats-campaign: tests the service under random faults, one seed after another. Replays and shortens runs that failed.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "campaign/corpus.h"
#include "campaign/picture.h"
#include "campaign/result-file.h"
#include "campaign/runner.h"
#include "campaign/simplify.h"
#include "campaign/summary.h"
#include "console/distinct-files.h"
#include "console/progress.h"
#include "console/usage.h"

namespace
{

using namespace campaign;

constexpr double ticks_per_hour = 3'600'000;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int exit_interrupted = 130; // the exit code that shells use for SIGINT

struct command_line {
    uint64_t first_seed = 1, last_seed = 30;
    double hours = 0;
    int jobs = 2;
    uint64_t shard = 1, shards = 1;
    std::string result_path;               // the file for the result of a campaign or of its shard; empty if none
    std::vector<std::string> result_paths; // results of the shards to merge; empty if seeds are run
    std::string corpus_folder;             // empty if no corpus is extended
    int minutes = 10;                      // time for --corpus
    bool minimise = false;
    std::vector<std::string> changes; // changes of the plan, see simplify.h
    std::vector<std::string> only;    // numbers of the acts to replay; empty means all acts
    std::string picture_path;         // empty if nothing is drawn
    bool draws_all_acts = false;      // the picture of a run that fails shows all acts, not the shortened run
    campaign::plan_options plan_options;
    run_options options;
};

ats::result<uint64_t> parse_number(std::string_view text)
{
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [position, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || position != end)
        return ats::fail(ats::error_kind::invalid, "'" + std::string(text) + "' is not a number");
    return number;
}

// Reads the value of --seeds: "N" means the first N seeds, "A-B" the seeds A to B.
ats::result<> read_seeds(std::string_view range, command_line& line)
{
    const size_t dash = range.find('-');
    const bool has_first = dash != range.npos;
    const ats::result<uint64_t> first = has_first ? parse_number(range.substr(0, dash)) : 1;
    const ats::result<uint64_t> last = parse_number(has_first ? range.substr(dash + 1) : range);
    if (!first) return ats::pass_on(first);
    if (!last) return ats::pass_on(last);
    if (*last < *first) return ats::fail(ats::error_kind::invalid, "there is no seed in " + std::string(range));
    line.first_seed = *first;
    line.last_seed = *last;
    return {};
}

// Reads the value of --shard: "K/N" means the K-th of N shards.
ats::result<> read_shard(std::string_view text, command_line& line)
{
    const size_t slash = std::min(text.find('/'), text.size());
    const ats::result<uint64_t> shard = parse_number(text.substr(0, slash));
    const ats::result<uint64_t> shards = parse_number(text.substr(std::min(slash + 1, text.size())));
    if (!shard || !shards || *shard < 1 || *shard > *shards)
        return ats::fail(ats::error_kind::invalid, "'" + std::string(text) + "' is not like 3/8, a shard from 1 to 8");
    line.shard = *shard;
    line.shards = *shards;
    return {};
}

// Checks that the file can be written. Creates it if it does not exist. An empty path means no file. The error gives
// the reason.
ats::result<> check_writable(const std::string& path)
{
    if (path.empty()) return {};
    std::FILE* const file = std::fopen(path.c_str(), "a");
    if (!file) return ats::fail("cannot write " + path + ": " + std::strerror(errno));
    std::fclose(file);
    return {};
}

// Returns the numbers of the acts to replay. `only` is the value of --only.
ats::result<std::vector<size_t>> chosen_acts(const plan& plan, const std::vector<std::string>& only)
{
    if (only.empty()) return all_acts(plan);
    std::vector<size_t> numbers;
    for (const std::string& text : only) {
        if (text == no_acts) continue;
        const ats::result<uint64_t> number = parse_number(text);
        if (!number) return ats::pass_on(number);
        if (*number >= plan.acts.size())
            return ats::fail(ats::error_kind::invalid,
                             "there is no act " + text + ", only " + std::to_string(plan.acts.size()));
        numbers.push_back(*number);
    }
    return numbers;
}

// The functions below with the type ats::result<int> return the exit code of the program. They return an error, for
// example, if the command line or an input file is wrong, or if the system refuses something.

// Shows the complaint of a run that fails, and the command that replays it. With --minimise, also shows the simplest
// run that fails. With --html, also draws a picture.
ats::result<int> show_failing_run(const command_line& line, const plan& plan, const std::vector<size_t>& acts,
                                  const run_result& result)
{
    const auto choice_with = [&](const campaign::plan& replayed_plan, const std::string& only) {
        return run_choice{.seed = plan.seed,
                          .options = plan.options,
                          .module_folder = line.options.module_folder,
                          .selection = selection_of(replayed_plan, only)};
    };
    show_failure(result.complaint, choice_with(plan, CLI::detail::join(line.only, ",")));
    const bool draws = !line.picture_path.empty();
    failing_run simplest{plan, acts};
    if (line.minimise || (draws && !line.draws_all_acts)) {
        ats::result<failing_run> simplest_run = simplify(std::move(simplest), line.options);
        if (!simplest_run) return ats::pass_on(simplest_run);
        simplest = std::move(*simplest_run);
    }
    if (line.minimise) {
        for (const size_t number : simplest.acts) std::printf("  %s\n", describe(simplest.plan, number).c_str());
        const ats::result<run_result> last_run = run_in_new_process(simplest.plan, simplest.acts, line.options);
        if (!last_run) return ats::pass_on(last_run);
        show_failure(last_run->complaint, choice_with(simplest.plan, text_of(simplest.acts)));
    }
    if (!draws) return exit_failed;
    failing_run drawn = line.draws_all_acts ? failing_run{plan, acts} : std::move(simplest);
    if (const ats::result<> unified = unify_trace_levels(drawn, result.complaint, line.options); !unified)
        return ats::pass_on(unified);
    const ats::result<> picture =
        draw(line.picture_path, drawn.plan, drawn.acts, line.options, result, !line.draws_all_acts);
    if (!picture) return ats::pass_on(picture);
    return exit_failed;
}

ats::result<int> replay(const command_line& line)
{
    plan plan = draw_plan(line.first_seed, line.plan_options);
    for (const std::string& text : line.changes)
        if (const ats::result<> result = change(plan, text); !result) return ats::pass_on(result);
    const ats::result<std::vector<size_t>> acts = chosen_acts(plan, line.only);
    if (!acts) return ats::pass_on(acts);
    if (const ats::result<> result = console::check_distinct_files({{"--log", line.options.log_path},
                                                                    {"--capture", line.options.capture_path},
                                                                    {"--html", line.picture_path}});
        !result)
        return ats::pass_on(result);
    for (const std::string& path : {line.options.log_path, line.options.capture_path, line.picture_path})
        if (const ats::result<> result = check_writable(path); !result) return ats::pass_on(result);
    const ats::result<run_result> result = run_in_new_process(plan, *acts, line.options);
    if (!result) return ats::pass_on(result);
    if (!result->complaint.empty()) return show_failing_run(line, plan, *acts, *result);
    if (!line.picture_path.empty())
        if (const ats::result<> picture = draw(line.picture_path, plan, *acts, line.options, *result, false); !picture)
            return ats::pass_on(picture);
    show(result->counts, 0);
    return 0;
}

// Returns the values that decide how a seed of the campaign runs.
run_choice choice_of(const campaign_result& campaign, uint64_t seed)
{
    return {.seed = seed, .options = campaign.options, .module_folder = campaign.module_folder, .selection = ""};
}

// Runs the seeds of a campaign, or of one shard of it.
ats::result<int> run(const command_line& line)
{
    const auto begin = std::chrono::steady_clock::now();
    campaign_result sum;
    sum.options = line.plan_options;
    sum.module_folder = line.options.module_folder;
    sum.first_seed = line.first_seed;
    sum.last_seed = line.last_seed;
    sum.shard = line.shard;
    sum.shards = line.shards;
    const seed_series series{.first = line.first_seed + line.shard - 1, .step = line.shards};
    const uint64_t seeds = series.first > line.last_seed ? 0 : (line.last_seed - series.first) / series.step + 1;
    uint64_t ended_seeds = 0;
    console::progress progress;
    stop_when_interrupted();
    const auto is_enough = [&](uint64_t started_seeds, const figures& counts) {
        const double hours = static_cast<double>(counts.simulated_ticks) / ticks_per_hour;
        return started_seeds >= seeds && hours >= line.hours;
    };
    const auto report = [&](const run_result& result) {
        ++ended_seeds;
        if (!result.complaint.empty()) {
            sum.failures.push_back({result.seed, result.complaint});
            progress.clear();
            show_failure(result.complaint, choice_of(sum, result.seed));
        }
        const std::string all_seeds = line.hours > 0 ? "" : " of " + std::to_string(seeds);
        progress.show(std::to_string(ended_seeds) + all_seeds + " seeds, " + std::to_string(sum.failures.size()) +
                      " failed (Ctrl-C ends with a summary)");
    };
    const ats::result<figures> counts = run_many(series, line.plan_options, line.jobs, line.options, is_enough, report);
    progress.clear();
    if (!counts) return ats::pass_on(counts);
    sum.counts = *counts;
    sum.is_interrupted = is_interrupted();
    sum.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const bool is_good = show_summary(sum);
    if (!line.result_path.empty())
        if (const ats::result<> save_result = save(sum, line.result_path); !save_result)
            return ats::pass_on(save_result);
    if (sum.is_interrupted) return exit_interrupted;
    return is_good ? 0 : exit_failed;
}

ats::result<int> extend(const command_line& line)
{
    const ats::result<bool> is_good = extend_corpus({.folder = line.corpus_folder,
                                                     .time = std::chrono::minutes(line.minutes),
                                                     .plan = line.plan_options,
                                                     .run = line.options});
    if (!is_good) return ats::pass_on(is_good);
    return *is_good ? 0 : exit_failed;
}

// Merges the results of shards, and shows the failures and the summary.
ats::result<int> merge_shards(const command_line& line)
{
    const ats::result<campaign_result> sum = merge(line.result_paths);
    if (!sum) return ats::pass_on(sum);
    for (const campaign_result::failure& each : sum->failures) show_failure(each.complaint, choice_of(*sum, each.seed));
    return show_summary(*sum) ? 0 : exit_failed;
}

} // namespace

int main(int argc, char** argv)
{
    command_line line;
    CLI::App program(
        "Tests the service under random faults, one seed after another. Replays and shortens the runs that failed.");
    const auto reads = [&](ats::result<> (*read)(std::string_view, command_line&)) {
        return [&line, read](const std::string& text) {
            if (const ats::result<> result = read(text, line); !result)
                throw CLI::ValidationError(result.error().text); // tells CLI11 that a value is wrong
        };
    };
    program.add_option_function<std::string>("--seeds", reads(read_seeds),
                                             "N or A-B: run the first N seeds, or seeds A to B");
    CLI::Option* const hours =
        program.add_option("--hours", line.hours, "continue until this many hours are simulated")
            ->check(console::number_from(0, 1e9));
    for (const plan_option& each : plan_option_table)
        program.add_flag(std::string("--") + each.name, line.plan_options.*each.member, each.help);
    program.add_option("--jobs", line.jobs, "run this many seeds at a time")->check(console::number_from(1, 10'000));
    CLI::Option* const seed = program.add_option("--seed", line.first_seed, "replay this seed");
    CLI::Option* const shard = program.add_option_function<std::string>(
        "--shard", reads(read_shard), "K/N: run the K-th of N parts of the seeds; needs --result");
    CLI::Option* const result = program.add_option("--result", line.result_path, "write the result to this file");
    shard->needs(result)->excludes(hours)->excludes(seed);
    result->excludes(seed)->excludes(hours);
    program.add_option("--merge", line.result_paths, "FILES: add up the results of all shards of a campaign")
        ->excludes(seed)
        ->excludes(shard)
        ->excludes(result);

    CLI::Option* const corpus =
        program
            .add_option("--corpus", line.corpus_folder,
                        "run changed plans of this folder; add those that make the module do something new")
            ->excludes(seed)
            ->excludes(hours)
            ->excludes(result);
    program.add_option("--minutes", line.minutes, "the time for --corpus; half of it is for plain seeds")
        ->check(console::number_from(1, 1'000'000))
        ->needs(corpus);

    // The options from --only to --all-acts are for a single seed. For example, a number of an act has a meaning for
    // one seed only, and the processes of several seeds cannot share a file.
    program.add_option("--only", line.only, "A,B,.. or none: replay only these acts of the seed")
        ->delimiter(',')
        ->needs(seed);
    program.add_option("--change", line.changes, "A,B,..: first make these changes of the plan, from --minimise")
        ->delimiter(',')
        ->needs(seed);
    program.add_flag("--minimise", line.minimise, "find the fewest acts and the simplest plan that fail")->needs(seed);
    program.add_option("--log", line.options.log_path, "write every act and every log line to this file")->needs(seed);
    program.add_option("--capture", line.options.capture_path, "write every datagram to this file, for Wireshark")
        ->needs(seed);
    CLI::Option* const html =
        program
            .add_option("--html", line.picture_path,
                        "draw the run as a page in this file; if it fails, the simplest run that fails")
            ->needs(seed);
    program.add_flag("--all-acts", line.draws_all_acts, "draw all acts of a run that fails")->needs(html);
    program.add_option("--modules", line.options.module_folder,
                       "load the modules from this folder, not those of the program");
    try {
        program.parse(argc, argv);
        const ats::result<int> exit_code = seed->count() > 0            ? replay(line)
                                           : corpus->count() > 0        ? extend(line)
                                           : !line.result_paths.empty() ? merge_shards(line)
                                                                        : run(line);
        if (exit_code) return *exit_code;
        std::fprintf(stderr, "ats-campaign: %s\n", exit_code.error().text.c_str());
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : exit_usage;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "ats-campaign: %s\n", exception.what());
    }
    return exit_usage;
}
