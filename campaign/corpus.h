// Searches for plans that make the module do something new, and extends these plans further. Compares the result with
// that of plain seeds in the same time.
#pragma once

#include <chrono>
#include <string>

#include "campaign/runner.h"

namespace campaign
{

struct corpus_options {
    std::string folder;                // the corpus: a file for each plan, with its part of a command line
    std::chrono::milliseconds time{0}; // half of it is for plain seeds
    plan_options plan;
    run_options run;
};

// Runs plain seeds first. Then runs the plans of the corpus, and changes of them. Stores each plan that reached
// something new, and prints each failure with the command that repeats it. Returns true if no run failed. The error:
// the module counts no edges, a file of the corpus is wrong, or a file cannot be written.
ats::result<bool> extend_corpus(const corpus_options& options);

} // namespace campaign
