// The output at the end of a campaign. The campaign ran on one machine, or its result was merged from shards.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"

namespace campaign
{

// What decides a run. The command that replays a run must repeat all of it.
struct run_choice {
    uint64_t seed;
    plan_options options;
    std::string module_folder; // empty: the modules of the program
    std::string selection;     // from selection_of(); empty for an unchanged plan with all acts
};

// Returns the options of a command line that select these acts and the changes of the plan. `acts` is a value of
// --only; empty means all acts.
std::string selection_of(const plan& plan, const std::string& acts);

// Returns the command that replays a run, for a shell.
std::string replay_command(const run_choice& choice);

// Prints the complaint of a failed run, and the command that replays it.
void show_failure(const std::string& complaint, const run_choice& choice);

// Prints the figures in one line. `seconds` is the time that has passed.
void show(const figures& counts, double seconds);

// Prints the figures, the marks, the number of failed seeds, and each kind of act that never took effect. In a shard or
// a short campaign, some kinds may be missing, so these are not checked there. Returns true if the campaign was not
// interrupted and no check failed.
bool show_summary(const campaign_result& result);

} // namespace campaign
