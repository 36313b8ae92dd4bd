// `make chaos`: runs real hosts under OpenSM on a simulated fabric, and random acts from a seed. After each round of
// acts, everything must be right again.
//   ats-chaos [--seed N] [--minutes M] [--rounds N] [--plan] [--folder DIR] [--modules DIR]
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <getopt.h>
#include <iostream>
#include <random>

#include "console/progress.h"
#include "tools/chaos/run.h"

namespace
{

using namespace chaos;

constexpr int exit_failed = 1, exit_usage = 2, exit_interrupted = 130;
constexpr int most_hosts = fabric_tools::most_programs - 3; // two SMs and one tool also need a place in ibsim
// Without --rounds, the plan has this many rounds for each minute. A minute is too short for so many.
constexpr int rounds_per_minute = 20;
constexpr const char* usage =
    "usage: ats-chaos [--seed N] [--minutes M] [--rounds N] [--plan] [--folder DIR] [--modules DIR]\n"
    "  --seed N      the seed of the plan (default: a random one)\n"
    "  --minutes M   begin no round after this time (default: 10)\n"
    "  --rounds N    end after so many rounds\n"
    "  --plan        only print the plan\n"
    "  --folder DIR  the folder for the logs and recordings of a run that fails (default: chaos-SEED)\n"
    "  --modules DIR the folder of the modules, for example of modules with a planted fault\n";

struct settings {
    uint64_t seed = std::random_device()();
    long minutes = 10;
    long rounds = 0; // 0: as many as fit into the minutes
    bool only_shows_plan = false;
    std::string folder, modules;
};

// Returns none if the command line is wrong.
std::optional<settings> read_settings(int count, char** arguments)
{
    settings settings;
    static const option options[] = {{"seed", required_argument, nullptr, 's'},
                                     {"minutes", required_argument, nullptr, 'm'},
                                     {"rounds", required_argument, nullptr, 'r'},
                                     {"plan", no_argument, nullptr, 'p'},
                                     {"folder", required_argument, nullptr, 'f'},
                                     {"modules", required_argument, nullptr, 'o'},
                                     {}};
    for (int letter; (letter = getopt_long(count, arguments, "", options, nullptr)) != -1;) {
        char* end = nullptr;
        const unsigned long number = optarg ? std::strtoul(optarg, &end, 10) : 0;
        if (letter == 's') settings.seed = number;
        if (letter == 'm') settings.minutes = static_cast<long>(number);
        if (letter == 'r') settings.rounds = static_cast<long>(number);
        if (letter == 'p') settings.only_shows_plan = true;
        if (letter == 'f')
            settings.folder = optarg;
        else if (letter == 'o')
            settings.modules = std::filesystem::absolute(optarg);
        else if (letter == '?' || (optarg && (*end != '\0' || end == optarg)))
            return std::nullopt;
    }
    if (optind != count || settings.minutes < 1) return std::nullopt;
    if (settings.folder.empty()) settings.folder = "chaos-" + std::to_string(settings.seed);
    return settings;
}

void show(const plan& plan)
{
    std::printf("Seed %llu: %d hosts\n", static_cast<unsigned long long>(plan.seed), plan.hosts);
    for (size_t i = 0; i < plan.rounds.size(); ++i) std::printf("%4zu  %s\n", i + 1, describe(plan.rounds[i]).c_str());
}

void show(const figures& figures, double minutes)
{
    std::printf("%d rounds in %.1f minutes; %d questions between hosts, %d without an answer during faults; longest "
                "way back: %.1f s\n",
                figures.rounds, minutes, figures.questions, figures.unanswered,
                static_cast<double>(figures.longest_settling.count()) / 1000);
    std::printf("%d times an order was repeated, %d times a new SM replaced one that ibsim had made hang\n",
                figures.orders_repeated, figures.sms_lost);
    for (const auto& [kind, count] : figures.acts) std::printf("%6d  %s\n", count, name_of(kind));
}

// `recording` is the path from run::recording_of().
void show(const failure& failure, const plan& plan, size_t round_number, const std::string& act,
          const std::string& recording, const settings& settings)
{
    std::printf("FAILED: seed %llu, round %zu, after: %s\n  %s\n  expected: %s\n  actual:   %s\n",
                static_cast<unsigned long long>(plan.seed), round_number, act.c_str(), failure.text.c_str(),
                failure.expected.c_str(), failure.actual.c_str());
    const std::string modules = settings.modules.empty() ? "" : " --modules " + settings.modules;
    std::printf(
        "Run it again: ats-chaos --seed %llu --rounds %zu --minutes %ld%s\nThe recordings and logs are in %s. Draw "
        "this recording first: ats replay %s --html failure.html\n",
        static_cast<unsigned long long>(plan.seed), round_number, settings.minutes, modules.c_str(),
        settings.folder.c_str(), recording.c_str());
}

int carry_out(const plan& plan, const settings& settings)
{
    const ats::result<> disks = allow_disks();
    if (!disks) std::printf("No disk will be full: %s\n", disks.error().text.c_str());
    std::filesystem::create_directories(settings.folder);
    const std::string folder = std::filesystem::absolute(settings.folder);
    const auto begin = chaos::clock::now();
    const auto minutes = [&] {
        return std::chrono::duration<double, std::ratio<60>>(chaos::clock::now() - begin).count();
    };
    chaos::run run(plan.hosts, folder, {.has_small_disk = disks.has_value(), .modules = settings.modules});
    size_t number = 0;
    try {
        run.begin();
        for (const chaos::round& round : plan.rounds) {
            if (minutes() >= static_cast<double>(settings.minutes)) break;
            ++number;
            const auto round_begin = chaos::clock::now();
            std::printf("%4zu  %s", number, describe(round).c_str());
            std::fflush(stdout);
            run.carry_out(round);
            std::printf(" (%.1f s)\n", std::chrono::duration<double>(chaos::clock::now() - round_begin).count());
        }
        run.end();
    } catch (const failure& failure) {
        std::printf("\n");
        run.keep_logs(failure);
        show(failure, plan, number, run.current_act(), run.recording_of(failure), settings);
        return exit_failed;
    }
    show(run.counts(), minutes());
    std::filesystem::remove_all(folder);
    return 0;
}

} // namespace

int main(int count, char** arguments)
{
    const std::optional<settings> settings = read_settings(count, arguments);
    if (!settings) {
        std::fputs(usage, stderr);
        return exit_usage;
    }
    const long rounds = settings->rounds > 0 ? settings->rounds : settings->minutes * rounds_per_minute;
    const plan plan = draw_plan(settings->seed, most_hosts, static_cast<int>(rounds));
    if (settings->only_shows_plan) {
        show(plan);
        return 0;
    }
    if (const auto programs = fabric_tools::ibsim_fabric::check_programs(); !programs) {
        std::cerr << "ats-chaos: " << programs.error().text << '\n';
        return exit_usage;
    }
    fabric_tools::throw_when_interrupted();
    try {
        show(plan);
        return carry_out(plan, *settings);
    } catch (const fabric_tools::interrupted&) {
        std::cerr << "ats-chaos: interrupted; all programs are ended\n";
        return exit_interrupted;
    } catch (const failure& failure) {
        std::cerr << "ats-chaos: " << failure.text << ": " << failure.actual << '\n';
    } catch (const std::exception& error) {
        std::cerr << "ats-chaos: " << error.what() << '\n';
    }
    return exit_failed;
}
