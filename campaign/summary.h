// The output of a campaign: its failed seeds while it runs, and the summary at its end. A replay of a seed, and a
// search (corpus.h), print parts of this output.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"

namespace campaign
{

// These values decide how a run goes. The command that replays the run contains all of them.
struct run_choice {
    uint64_t seed;
    plan_options options;
    std::string module_folder; // empty: the modules of the program
    std::string selection;     // from selection_of(); empty for an unchanged plan with all acts
};

// Returns the options --only and --change for a command line. `acts` is the value of --only; if it is empty, the option
// is left out. --change lists the changes in `plan`.
std::string selection_of(const plan& plan, const std::string& acts);

// Returns the command that replays a run, for a shell.
std::string replay_command(const run_choice& choice);

// Prints the complaint of a failed run, and the command that replays it.
void show_failure(const std::string& complaint, const run_choice& choice);

// Prints the figures in one line. `seconds` is the duration of the campaign. For merged shards, it is the sum of their
// durations. For a replay, it is 0.
void show(const figures& counts, double seconds);

// Prints the figures, how often each kind of act took effect, and the number of failed seeds. A kind that never took
// effect is a failure, and is printed, too. A shard, a short campaign or an interrupted campaign need not contain every
// kind, so this check is left out for them. Returns true if the campaign was not interrupted and nothing failed.
bool show_summary(const campaign_result& result);

} // namespace campaign
