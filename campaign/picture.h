// Draws a run of a seed as a page: records the run, and lets recording/ make the page.
#pragma once

#include <string>
#include <vector>

#include "campaign/runner.h"

namespace campaign
{

constexpr const char* no_acts = "none"; // the value of --only for a seed that fails even without acts

// Returns the acts as a value of --only.
std::string text_of(const std::vector<size_t>& acts);

// Runs these acts of the plan again, records the run, and writes the page to `path`. `is_shortened` tells the reader of
// the page that acts were removed. Returns an error if the run has another digest than `first_run`, if no process can
// be started, or if a file cannot be written. (The digest of a run that fails is 0.)
ats::result<> draw(const std::string& path, const plan& plan, const std::vector<size_t>& acts, run_options options,
                   const run_result& first_run, bool is_shortened);

} // namespace campaign
