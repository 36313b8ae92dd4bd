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

struct picture_options {
    std::string path; // empty if nothing is drawn
    bool shows_all_acts = false;
};

// Runs these acts again, records the run, and writes the page. If they failed in `first_run`, only the acts that the
// failure needs are run, unless the options ask for all. If they passed, the new run must have the same digest; another
// digest is an error. Other errors: no process could be started, or a file could not be written.
ats::result<> draw(const picture_options& picture, const plan& plan, std::vector<size_t> acts, run_options options,
                   const run_result& first_run);

} // namespace campaign
