#include "campaign/summary.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace campaign
{

namespace
{

constexpr double ticks_per_hour = 3'600'000;
// With fewer seeds, some kinds of acts may be missing.
constexpr uint64_t seeds_with_every_kind = 60, swarm_seeds_with_every_kind = 500;

void show_marks(const campaign_result& result)
{
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        if (may_occur(act_kinds[kind], result.options))
            std::printf("%10lu  %s: %s\n", result.counts.marks[kind], act_kinds[kind].name, act_kinds[kind].mark);
}

// Prints each kind of act that can occur in this campaign but never took effect. Returns the number of these kinds.
// Prints nothing and returns 0 if the campaign was interrupted, is divided into shards, or has too few seeds.
int show_idle_kinds(const campaign_result& result)
{
    const uint64_t needed_seeds = result.options.is_swarm ? swarm_seeds_with_every_kind : seeds_with_every_kind;
    if (result.shards > 1 || result.is_interrupted || result.counts.seeds < needed_seeds) return 0;
    int idle_kinds = 0;
    for (size_t kind = 0; kind < act_kind_count; ++kind) {
        if (result.counts.marks[kind] > 0 || !may_occur(act_kinds[kind], result.options)) continue;
        ++idle_kinds;
        std::printf("FAILED: no act \"%s\" took effect in %lu seeds\n", act_kinds[kind].name, result.counts.seeds);
    }
    return idle_kinds;
}

// Quotes the word if a shell would not read it as one plain word.
std::string shell_word(const std::string& word)
{
    const auto is_plain = [](unsigned char c) {
        return std::isalnum(c) || std::string_view("/._-+=:,@%").find(static_cast<char>(c)) != std::string_view::npos;
    };
    if (!word.empty() && std::ranges::all_of(word, is_plain)) return word;
    std::string text = "'";
    for (const char c : word) text += c == '\'' ? "'\\''" : std::string(1, c);
    return text + "'";
}

} // namespace

std::string selection_of(const plan& plan, const std::string& acts)
{
    std::string text = acts.empty() ? "" : " --only " + acts;
    for (const std::string& each : plan.changes) text += (&each == &plan.changes[0] ? " --change " : ",") + each;
    return text;
}

std::string replay_command(const run_choice& choice)
{
    const std::string number = std::to_string(choice.seed);
    const std::string modules = choice.module_folder.empty() ? "" : " --modules " + shell_word(choice.module_folder);
    return "ats-campaign --seed " + number + describe(choice.options) + choice.selection + modules + " --log seed-" +
           number + ".log";
}

void show_failure(const std::string& complaint, const run_choice& choice)
{
    std::printf("FAILED seed %lu: %sreplay: %s\n", choice.seed, complaint.c_str(), replay_command(choice).c_str());
    std::fflush(stdout);
}

// scripts/report reads the line that this function prints. Change both together.
void show(const figures& counts, double seconds)
{
    const double hours = static_cast<double>(counts.simulated_ticks) / ticks_per_hour;
    std::printf("%lu seeds, %.1f simulated hours, %lu acts, %lu faults, %lu datagrams, %lu questions, %lu answers, "
                "%lu truths, digest %016lx, %.1f s\n",
                counts.seeds, hours, counts.acts, counts.faults, counts.datagrams, counts.questions, counts.answers,
                counts.truths, counts.digest, seconds);
}

bool show_summary(const campaign_result& result)
{
    show(result.counts, result.seconds);
    show_marks(result);
    const int idle_kinds = show_idle_kinds(result);
    if (!result.failures.empty()) std::printf("%zu seeds FAILED\n", result.failures.size());
    if (result.is_interrupted) std::printf("INTERRUPTED: not all seeds were run\n");
    return !result.is_interrupted && result.failures.empty() && idle_kinds == 0;
}

} // namespace campaign
