// Makes the plan of a run that fails simpler: fewer hosts, smaller numbers, the plain order of tasks. A simpler plan is
// the plan of the seed with a list of changes. The command line accepts the same list.
#pragma once

#include <string_view>
#include <vector>

#include "campaign/runner.h"

namespace campaign
{

// Carries out a change and notes it in the plan. These are the changes, with examples of numbers:
//     hosts=2 hcas=1 ports=1         the first hosts only; at most so many HCAs a host, and ports an HCA
//     order=plain order=5 depth=1    tasks run in the plain order, or in another random one; the depth of the
//     priorities more=12                        the acts of seed 12, too 7.host=0 7.a=1 7.b=0           the numbers of
//     act 7 7.ticks=5 7.begin=900          how long it lasts, and when it begins
// The error: there is no such change, or the plan has no such act or number.
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
