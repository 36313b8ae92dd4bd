// A corpus is a folder of plans. Each plan made the module do something that no earlier plan had made it do: see
// edges.h. This code changes copies of the plans at random. If a changed plan makes the module do something new, it
// joins the corpus. For comparison, this code also runs plain seeds (plans without changes) for the same time.
#pragma once

#include <chrono>
#include <string>

#include "campaign/runner.h"

namespace campaign
{

struct corpus_options {
    std::string folder; // of the corpus; it has one file for each plan, with the seed and its changes (see simplify.h)
    std::chrono::milliseconds time{0}; // half of it is for plain seeds; does not limit the run of the stored plans
    plan_options plan;
    run_options run;
};

// Runs plain seeds first. Then runs the plans of the corpus, changed copies of them, and some plain seeds. Stores each
// plan of this second half that reached something new. Prints each failure with the command that repeats it. Returns
// true if no run failed. Returns an error if the modules count no edges, if a file of the corpus is wrong, if a file
// cannot be written, or if a process cannot be started.
ats::result<bool> extend_corpus(const corpus_options& options);

} // namespace campaign
