// Runs campaigns, each in a process of its own: one that dies says why, and the others go on.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "campaign/tested-fabric.h"

namespace campaign
{

// A run of one seed's plan, or of some of its acts.
struct outcome {
    uint64_t seed = 0;
    std::string complaint; // empty: it was clean
    figures done;
};

outcome run_apart(const plan& of, const std::vector<size_t>& act_numbers, const options& chosen);

// From now on a SIGINT (Ctrl-C) does not end this program: run_many starts no more seeds, ends those that run, which
// count for nothing, and returns the sum so far.
void stop_when_interrupted();
bool is_interrupted();

// Runs seeds from `first` on until `enough` says so (told how many have been begun, and what those that ended did),
// `jobs` at a time. Returns the sum of what was done; `told` hears of each outcome in the order in which they come.
figures run_many(uint64_t first, int jobs, const options& chosen,
                 const std::function<bool(uint64_t, const figures&)>& enough,
                 const std::function<void(const outcome&)>& told);

// The numbers of all acts of a plan.
std::vector<size_t> all_acts(const plan& of);

// Fewer acts that fail in the same way: those of which none can be left out.
std::vector<size_t> shorten(const plan& of, std::vector<size_t> failing, const options& chosen);

} // namespace campaign
