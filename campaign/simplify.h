// Simplifies the plan of a failing run: fewer hosts, smaller numbers, the plain order of tasks. A simpler plan consists
// of the seed and a list of changes. The command line accepts this list after --change.
#pragma once

#include <string_view>
#include <vector>

#include "campaign/runner.h"

namespace campaign
{

// clang-format off
// Makes a change in the plan, and adds it to plan::changes. These are the changes, with examples of numbers:
//     hosts=2         keep only the first two hosts
//     hcas=1          each host has one HCA
//     ports=1         each HCA has one port
//     order=plain     tasks run in the order in which they become ready
//     order=5         draw the order of tasks from seed 5
//     depth=1         the depth of the random priorities (--pct), see exec::priority_schedule
//     trace=4         all hosts have this trace level; below 4, port_model does not check their logs
//     more=12         add the acts of seed 12 that this plan may have, except faults that never heal
//     7.host=0        act 7 selects its host with the number 0
//     7.a=1 7.b=0     act 7 has these other random numbers
//     7.ticks=5       act 7 lasts 5 ticks
//     7.begin=900     act 7 begins at tick 900
// Returns an error if there is no such change, if the plan has no such act, or if the number does not fit the plan.
// clang-format on
ats::result<> change(plan& plan, std::string_view text);

// A run that fails.
struct failing_run {
    campaign::plan plan;
    std::vector<size_t> acts;
};

// Gives all hosts of a failing run the same trace level, debug_trace_level: a picture of the run then shows the log of
// each host in the same detail. Changes nothing if the run then does not fail, or fails in another way than with
// `complaint`. Returns an error only if no process could be started.
ats::result<> unify_trace_levels(failing_run& run, const std::string& complaint, const run_options& options);

// Returns a run that fails in the same way and is simpler where possible. First leaves out acts (see shorten()). Then
// tries changes one by one: the plain order, fewer hosts, HCAs and ports, and smaller numbers in the acts. Keeps each
// change after which the run still fails in this way. Returns an error only if no process could be started.
ats::result<failing_run> simplify(failing_run run, const run_options& options);

} // namespace campaign
