// Draws a run of a seed as a page. recording/ makes the page from a recording.
#pragma once

#include <string>
#include <vector>

#include "campaign/runner.h"

namespace campaign
{

constexpr const char* no_acts = "none"; // the value of --only for a seed that fails without any act

// The acts as the value of --only.
std::string text_of(const std::vector<size_t>& acts);

// Runs these acts of the plan again, records the run, and writes the page. If they passed in `first_run`, the new run
// must have the same digest; another digest is an error. Other errors: no process could be started, or a file could not
// be written. `is_shortened`: acts were removed, because the run fails without them.
ats::result<> draw(const std::string& path, const plan& plan, const std::vector<size_t>& acts, run_options options,
                   const run_result& first_run, bool is_shortened);

} // namespace campaign
