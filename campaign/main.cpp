// ats-campaign: tries to break the service, one seed after another, and replays and shortens what broke it.
#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>

#include "campaign/runner.h"
#include "console/progress.h"
#include "host/world/module-folder.h"

namespace
{

using namespace campaign;

constexpr double ticks_per_hour = 3'600'000;
constexpr int exit_usage = 2;
constexpr int exit_interrupted = 130;   // as shells count a SIGINT
constexpr const char* no_acts = "none"; // some seeds fail without any

struct request {
    uint64_t first = 1, last = 30;
    double hours = 0;
    int jobs = 2;
    bool minimise = false;
    std::vector<std::string> only; // acts; empty: all
    options chosen;
};

uint64_t number_in(std::string_view text)
{
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end) throw CLI::ValidationError("'" + std::string(text) + "' is no number");
    return number;
}

// "N", the first so many, or "A-B".
void read_seeds(std::string_view range, request& into)
{
    const size_t dash = range.find('-');
    into.first = dash == range.npos ? 1 : number_in(range.substr(0, dash));
    into.last = number_in(range.substr(dash == range.npos ? 0 : dash + 1));
    if (into.last < into.first) throw CLI::ValidationError("there is no seed in " + std::string(range));
}

std::vector<size_t> acts_chosen(const plan& of, const std::vector<std::string>& only)
{
    if (only.empty()) return all_acts(of);
    std::vector<size_t> numbers;
    for (const std::string& each : only) {
        if (each == no_acts) continue;
        numbers.push_back(number_in(each));
        if (numbers.back() >= of.acts.size())
            throw CLI::ValidationError("there is no act " + each + ", only " + std::to_string(of.acts.size()));
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

// `only` as a replay takes it.
void complain(const outcome& failed, const std::vector<std::string>& only)
{
    const std::string acts = only.empty() ? "" : " --only " + CLI::detail::join(only, ",");
    std::printf("FAILED seed %lu: %sreplay: ats-campaign --seed %lu%s --log seed-%lu.log\n", failed.seed,
                failed.complaint.c_str(), failed.seed, acts.c_str(), failed.seed);
    std::fflush(stdout);
}

void show(const figures& done, double seconds)
{
    const double hours = static_cast<double>(done.simulated_ticks) / ticks_per_hour;
    std::printf("%lu seeds, %.1f simulated hours, %lu acts, %lu faults, %lu datagrams, %lu questions, %lu answers, "
                "%lu truths, digest %016lx, %.1f s\n",
                done.seeds, hours, done.acts, done.faults, done.datagrams, done.questions, done.answers, done.truths,
                done.digest, seconds);
}

// One line for each kind of act: how often it took effect.
void show_marks(const figures& done)
{
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        std::printf("%10lu  %s: %s\n", done.marks[kind], act_kinds[kind].name, act_kinds[kind].mark);
}

// Complains of each kind of act that never took effect; returns how many there are. Few seeds do not draw every kind.
int complain_of_idle_kinds(const figures& done)
{
    constexpr uint64_t seeds_with_every_kind = 60;
    int idle = 0;
    for (size_t kind = 0; kind < act_kind_count && done.seeds >= seeds_with_every_kind; ++kind) {
        if (done.marks[kind] > 0) continue;
        ++idle;
        std::printf("FAILED: no act \"%s\" took effect in %lu seeds\n", act_kinds[kind].name, done.seeds);
    }
    return idle;
}

int replay(const request& asked)
{
    const plan drawn = draw_plan(asked.first);
    std::vector<size_t> acts = acts_chosen(drawn, asked.only);
    outcome result = run_apart(drawn, acts, asked.chosen);
    if (result.complaint.empty()) {
        show(result.done, 0);
        return 0;
    }
    complain(result, asked.only);
    if (!asked.minimise) return 1;
    acts = shorten(drawn, acts, asked.chosen);
    for (const size_t number : acts) std::printf("  %s\n", describe(drawn, number).c_str());
    complain(run_apart(drawn, acts, asked.chosen), texts_of(acts));
    return 1;
}

int run(const request& asked)
{
    const auto begun = std::chrono::steady_clock::now();
    uint64_t failed = 0, ended = 0;
    console::progress shown;
    stop_when_interrupted();
    const auto enough = [&](uint64_t begun_seeds, const figures& done) {
        const double hours = static_cast<double>(done.simulated_ticks) / ticks_per_hour;
        return begun_seeds > asked.last - asked.first && hours >= asked.hours;
    };
    const figures done = run_many(asked.first, asked.jobs, asked.chosen, enough, [&](const outcome& each) {
        ++ended;
        if (!each.complaint.empty()) {
            ++failed;
            shown.clear();
            complain(each, {});
        }
        const std::string all = asked.hours > 0 ? "" : " of " + std::to_string(asked.last - asked.first + 1);
        shown.show(std::to_string(ended) + all + " seeds, " + std::to_string(failed) +
                   " failed (Ctrl-C ends with a summary)");
    });
    shown.clear();
    show(done, std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    show_marks(done);
    const int idle = is_interrupted() ? 0 : complain_of_idle_kinds(done);
    if (failed > 0) std::printf("%lu seeds FAILED\n", failed);
    if (is_interrupted()) std::printf("INTERRUPTED: not all seeds were run\n");
    return is_interrupted() ? exit_interrupted : failed > 0 || idle > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    request asked;
    asked.chosen.module_folder = world::default_module_folder();
    CLI::App program("Tries to break the service, one seed after another, and replays and shortens what broke it.");
    program.add_option_function<std::string>(
        "--seeds", [&](const std::string& range) { read_seeds(range, asked); }, "N, or A-B: run so many, or those");
    program.add_option("--hours", asked.hours, "go on until so many hours are simulated");
    program.add_option("--jobs", asked.jobs, "how many at a time")->check(CLI::PositiveNumber);
    const CLI::Option* one = program.add_option("--seed", asked.first, "replay this one");
    program.add_option("--only", asked.only, "A,B,.. or none: these of its acts")->delimiter(',');
    program.add_flag("--minimise", asked.minimise, "find the acts that it takes to fail");
    program.add_option("--log", asked.chosen.log_path, "write what happens");
    program.add_option("--capture", asked.chosen.capture_path, "write every datagram");
    try {
        program.parse(argc, argv);
        return one->count() > 0 ? replay(asked) : run(asked);
    } catch (const CLI::ParseError& wrong) {
        return program.exit(wrong) == 0 ? 0 : exit_usage;
    } catch (const std::exception& wrong) {
        std::fprintf(stderr, "ats-campaign: %s\n", wrong.what());
        return exit_usage;
    }
}
