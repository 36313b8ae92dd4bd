// Runs campaigns, each in its own process. If one crashes, its complaint is kept and the others continue.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "campaign/tested-fabric.h"
#include "host/result.h"

namespace campaign
{

// The result of a run of one seed's plan, or of some of its acts.
struct run_result {
    uint64_t seed = 0;
    std::string complaint; // empty if the run found no fault
    figures counts;
};

// Runs these acts of the plan and waits for the end. Fails if no process could be started.
ats::result<run_result> run_apart(const plan& plan, const std::vector<size_t>& act_numbers, const run_options& options);

// After this call, Ctrl-C (SIGINT) no longer ends the program. Instead run_many starts no more seeds, kills the running
// ones without counting them, and returns the sum so far.
void stop_when_interrupted();
bool is_interrupted();

// Seeds at equal distances.
struct seed_series {
    uint64_t first;
    uint64_t step = 1;
};

// Runs the seeds of a series in order, `jobs` at a time, until `is_enough` returns true. `is_enough` receives the
// number of started seeds and the sum of the ended ones. `report` receives each result when its seed ends. Returns the
// sum. Fails if no process could be started.
ats::result<figures> run_many(const seed_series& seeds, const plan_options& plan_options, int jobs,
                              const run_options& options,
                              const std::function<bool(uint64_t, const figures&)>& is_enough,
                              const std::function<void(const run_result&)>& report);

// The letters of the complaint's first line. Two complaints that differ only in numbers are of the same kind.
std::string complaint_kind(const std::string& complaint);

// The numbers of all acts of a plan.
std::vector<size_t> all_acts(const plan& plan);

// Returns fewer acts than `act_numbers` that fail in the same way. None of them can be removed.
ats::result<std::vector<size_t>> shorten(const plan& plan, std::vector<size_t> act_numbers, const run_options& options);

} // namespace campaign
