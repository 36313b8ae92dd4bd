// Makes the plan of a run that fails simpler: fewer hosts, smaller numbers, the plain order of tasks. A simpler plan is
// the plan of the seed with a list of changes. The command line accepts the same list.
#pragma once

#include <string_view>
#include <vector>

#include "campaign/runner.h"

namespace campaign
{

// clang-format off
// Carries out a change and notes it in the plan. These are the changes, with examples of numbers:
//     hosts=2         only the first two hosts
//     hcas=1          each host has one HCA
//     ports=1         each HCA has one port
//     order=plain     tasks run in the plain order
//     order=5         tasks run in another random order
//     depth=1         the depth of the random priorities (--pct)
//     more=12         adds the acts of seed 12
//     7.host=0        the host of act 7
//     7.a=1 7.b=0     the other random numbers of act 7
//     7.ticks=5       act 7 lasts 5 ticks
//     7.begin=900     act 7 begins at tick 900
// Fails if there is no such change, or if the plan has no such act or does not allow the number.
// clang-format on
ats::result<> change(plan& plan, std::string_view text);

// A run that fails.
struct failing_run {
    campaign::plan plan;
    std::vector<size_t> acts;
};

// Returns the simplest run that fails in the same way: the fewest acts, and the plan with all changes after which they
// still fail.
ats::result<failing_run> simplify(failing_run run, const run_options& options);

} // namespace campaign
