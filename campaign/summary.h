// The output at the end of a campaign, on one machine or merged from shards.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"

namespace campaign
{

// The options that select these acts (the value of --only; empty means all) and the changes of the plan.
std::string selection_of(const plan& plan, const std::string& acts);

// The command that runs a seed again. `selection` is that of selection_of(); empty for a plan as it was drawn.
std::string replay_command(uint64_t seed, const plan_options& options, const std::string& selection);

// Prints the complaint of a failed run, and the command that replays it.
void show_failure(const campaign_result::failure& failure, const plan_options& options, const std::string& selection);

// Prints the line of figures.
void show(const figures& counts, double seconds);

// Prints the figures, the marks, the number of failed seeds, and each kind of act that never took effect. A shard may
// lack some kinds of acts, so these are not checked for a shard. Returns true if the campaign was complete and found no
// fault.
bool show_summary(const campaign_result& result);

} // namespace campaign
