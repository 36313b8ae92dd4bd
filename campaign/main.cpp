// ats-campaign: tries to break the service, one seed after another, and replays and shortens the runs that failed.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "campaign/runner.h"
#include "console/progress.h"
#include "host/world/module-folder.h"

namespace
{

using namespace campaign;

constexpr double ticks_per_hour = 3'600'000;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int exit_interrupted = 130;   // as shells report a SIGINT
constexpr const char* no_acts = "none"; // some seeds fail without any act

struct command_line {
    uint64_t first_seed = 1, last_seed = 30;
    double hours = 0;
    int jobs = 2;
    bool minimise = false;
    std::vector<std::string> only; // acts; empty: all
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

// Reads "N", which means the first N seeds, or "A-B".
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

// Creates the file unless it exists. An empty path means no file. The error says why it cannot be written.
ats::result<> check_writable(const std::string& path)
{
    if (path.empty()) return {};
    std::FILE* const file = std::fopen(path.c_str(), "a");
    if (!file) return ats::fail("cannot write " + path + ": " + std::strerror(errno));
    std::fclose(file);
    return {};
}

// The acts of a replay.
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

std::vector<std::string> texts_of(const std::vector<size_t>& acts)
{
    if (acts.empty()) return {no_acts};
    std::vector<std::string> texts;
    for (const size_t number : acts) texts.push_back(std::to_string(number));
    return texts;
}

// Prints the complaint of a failed run, and the command that replays it with these acts (`only` as on a command line).
void show_failure(const run_result& failure, const std::vector<std::string>& only, bool asks_for_paths)
{
    const std::string acts = only.empty() ? "" : " --only " + CLI::detail::join(only, ",");
    std::printf("FAILED seed %lu: %sreplay: ats-campaign --seed %lu%s%s --log seed-%lu.log\n", failure.seed,
                failure.complaint.c_str(), failure.seed, asks_for_paths ? " --paths" : "", acts.c_str(), failure.seed);
    std::fflush(stdout);
}

// scripts/report reads this line.
void show(const figures& counts, double seconds)
{
    const double hours = static_cast<double>(counts.simulated_ticks) / ticks_per_hour;
    std::printf("%lu seeds, %.1f simulated hours, %lu acts, %lu faults, %lu datagrams, %lu questions, %lu answers, "
                "%lu truths, digest %016lx, %.1f s\n",
                counts.seeds, hours, counts.acts, counts.faults, counts.datagrams, counts.questions, counts.answers,
                counts.truths, counts.digest, seconds);
}

// Prints one line for each kind of act: how often it took effect.
void show_marks(const figures& counts, bool asks_for_paths)
{
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        if (asks_for_paths || !act_kinds[kind].needs_paths)
            std::printf("%10lu  %s: %s\n", counts.marks[kind], act_kinds[kind].name, act_kinds[kind].mark);
}

// Prints each kind of act that never took effect, and returns their number. Fewer seeds than 60 may lack some kinds, so
// they are not checked.
int show_idle_kinds(const figures& counts, bool asks_for_paths)
{
    constexpr uint64_t seeds_with_every_kind = 60;
    if (counts.seeds < seeds_with_every_kind) return 0;
    int idle_kinds = 0;
    for (size_t kind = 0; kind < act_kind_count; ++kind) {
        if (counts.marks[kind] > 0 || (act_kinds[kind].needs_paths && !asks_for_paths)) continue;
        ++idle_kinds;
        std::printf("FAILED: no act \"%s\" took effect in %lu seeds\n", act_kinds[kind].name, counts.seeds);
    }
    return idle_kinds;
}

// Each of the next three returns the exit code. The error is one of the command line or of the system.

ats::result<int> minimise(const plan& plan, const std::vector<size_t>& acts, const run_options& options)
{
    const ats::result<std::vector<size_t>> fewest_acts = shorten(plan, acts, options);
    if (!fewest_acts) return ats::pass_on(fewest_acts);
    for (const size_t number : *fewest_acts) std::printf("  %s\n", describe(plan, number).c_str());
    const ats::result<run_result> result = run_apart(plan, *fewest_acts, options);
    if (!result) return ats::pass_on(result);
    show_failure(*result, texts_of(*fewest_acts), options.asks_for_paths);
    return exit_failed;
}

ats::result<int> replay(const command_line& line)
{
    const plan plan = draw_plan(line.first_seed, line.options.asks_for_paths);
    const ats::result<std::vector<size_t>> acts = chosen_acts(plan, line.only);
    if (!acts) return ats::pass_on(acts);
    for (const std::string& path : {line.options.log_path, line.options.capture_path})
        if (const ats::result<> result = check_writable(path); !result) return ats::pass_on(result);
    const ats::result<run_result> result = run_apart(plan, *acts, line.options);
    if (!result) return ats::pass_on(result);
    if (result->complaint.empty()) {
        show(result->counts, 0);
        return 0;
    }
    show_failure(*result, line.only, line.options.asks_for_paths);
    return line.minimise ? minimise(plan, *acts, line.options) : exit_failed;
}

ats::result<int> run(const command_line& line)
{
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t seeds = line.last_seed - line.first_seed + 1;
    uint64_t ended_seeds = 0, failed_seeds = 0;
    console::progress progress;
    stop_when_interrupted();
    const auto is_enough = [&](uint64_t started_seeds, const figures& counts) {
        const double hours = static_cast<double>(counts.simulated_ticks) / ticks_per_hour;
        return started_seeds >= seeds && hours >= line.hours;
    };
    const auto report = [&](const run_result& result) {
        ++ended_seeds;
        if (!result.complaint.empty()) {
            ++failed_seeds;
            progress.clear();
            show_failure(result, {}, line.options.asks_for_paths);
        }
        const std::string all_seeds = line.hours > 0 ? "" : " of " + std::to_string(seeds);
        progress.show(std::to_string(ended_seeds) + all_seeds + " seeds, " + std::to_string(failed_seeds) +
                      " failed (Ctrl-C ends with a summary)");
    };
    const ats::result<figures> counts = run_many(line.first_seed, line.jobs, line.options, is_enough, report);
    progress.clear();
    if (!counts) return ats::pass_on(counts);
    show(*counts, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    show_marks(*counts, line.options.asks_for_paths);
    const int idle_kinds = is_interrupted() ? 0 : show_idle_kinds(*counts, line.options.asks_for_paths);
    if (failed_seeds > 0) std::printf("%lu seeds FAILED\n", failed_seeds);
    if (is_interrupted()) {
        std::printf("INTERRUPTED: not all seeds were run\n");
        return exit_interrupted;
    }
    return failed_seeds > 0 || idle_kinds > 0 ? exit_failed : 0;
}

} // namespace

int main(int argc, char** argv)
{
    command_line line;
    line.options.module_folder = world::default_module_folder();
    CLI::App program(
        "Tries to break the service, one seed after another, and replays and shortens the runs that failed.");
    const auto read_range = [&](const std::string& range) {
        if (const ats::result<> result = read_seeds(range, line); !result)
            throw CLI::ValidationError(result.error().text); // how CLI11 is told of a wrong value
    };
    program.add_option_function<std::string>("--seeds", read_range, "N or A-B: run the first N seeds, or seeds A to B");
    program.add_option("--hours", line.hours, "continue until so many hours are simulated");
    program.add_flag("--paths", line.options.asks_for_paths, "let hosts ask for paths, too");
    program.add_option("--jobs", line.jobs, "run so many seeds at a time")->check(CLI::PositiveNumber);
    CLI::Option* const seed = program.add_option("--seed", line.first_seed, "replay this seed");

    // A run of many seeds has no single list of acts, and its processes cannot share a file.
    program.add_option("--only", line.only, "A,B,.. or none: replay these of its acts only")
        ->delimiter(',')
        ->needs(seed);
    program.add_flag("--minimise", line.minimise, "find the fewest acts that fail")->needs(seed);
    program.add_option("--log", line.options.log_path, "write every act and every log line to this file")->needs(seed);
    program.add_option("--capture", line.options.capture_path, "write every datagram to this file, for Wireshark")
        ->needs(seed);
    try {
        program.parse(argc, argv);
        const ats::result<int> exit_code = seed->count() > 0 ? replay(line) : run(line);
        if (exit_code) return *exit_code;
        std::fprintf(stderr, "ats-campaign: %s\n", exit_code.error().text.c_str());
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : exit_usage;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "ats-campaign: %s\n", exception.what());
    }
    return exit_usage;
}
