// Runs plans, each in its own process. If a run crashes, its complaint is kept, and the other runs continue.
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
    std::string complaint; // what the failed run printed, or how it ended; empty if the run found no fault
    figures counts;
};

// Runs these acts of the plan in a new process, and waits for its end. A fault that the run finds is in the result.
// Returns an error only if no process could be started.
ats::result<run_result> run_in_new_process(const plan& plan, const std::vector<size_t>& act_numbers,
                                           const run_options& options);

// After this call, Ctrl-C (SIGINT) no longer ends the program. Instead, run_many() starts no more seeds, kills the
// seeds that run, does not count them, and returns the sum so far.
void stop_when_interrupted();

// Returns true if Ctrl-C was pressed after stop_when_interrupted().
bool is_interrupted();

// The seeds `first`, `first + step`, `first + 2 * step` and so on.
struct seed_series {
    uint64_t first;
    uint64_t step = 1;
};

// Runs the seeds of a series in order, `jobs` at a time, until `is_enough` returns true. `is_enough` receives the
// number of seeds that have started, and the sum of the figures of those that have ended. `report` receives the result
// of each seed when it ends. Returns the sum of all figures. Returns an error only if a process could not be started;
// the running seeds are then killed.
ats::result<figures> run_many(const seed_series& seeds, const plan_options& plan_options, int jobs,
                              const run_options& options,
                              const std::function<bool(uint64_t, const figures&)>& is_enough,
                              const std::function<void(const run_result&)>& report);

// Returns the letters of the complaint's first line. Two complaints that differ only in their numbers have the same
// kind.
std::string complaint_kind(const std::string& complaint);

// Returns the numbers of all acts of a plan.
std::vector<size_t> all_acts(const plan& plan);

// Removes acts without which the run still fails with the same complaint_kind(). Returns the remaining acts. Returns an
// error only if a process could not be started.
ats::result<std::vector<size_t>> shorten(const plan& plan, std::vector<size_t> act_numbers, const run_options& options);

} // namespace campaign
