// The figures of one seed, their sums over many seeds, and the result of a campaign.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "campaign/plan.h"

namespace campaign
{

// The figures of one seed. add() sums them for several seeds.
struct figures {
    uint64_t seeds = 0;
    uint64_t simulated_ticks = 0;
    uint64_t acts = 0;
    // Harmful acts, cuts, link changes, failed calls, and datagrams that were lost, doubled, corrupted or refused.
    uint64_t faults = 0;
    uint64_t questions = 0;
    uint64_t answers = 0; // callbacks, also those that report a time-out
    uint64_t truths = 0;  // how often a registration or a lookup was compared with the expected state
    uint64_t datagrams = 0;
    std::array<uint64_t, act_kind_count> marks{}; // how often each kind of act took effect
    uint64_t digest = 0;                          // hash of the log; for several seeds, the xor of their digests
};

// The fields that add() sums, except the marks. The names are the keys in a result file.
struct summed_figure {
    const char* name;
    uint64_t figures::*member;
};
extern const std::array<summed_figure, 8> summed_figures;

// Adds the figures of a seed to a sum. The order of the seeds does not matter.
void add(figures& sum, const figures& counts);

// The result of a campaign over a range of seeds, or of one shard of the campaign.
struct campaign_result {
    plan_options options;
    std::string module_folder;              // as on the command line; empty: the modules of the program
    uint64_t first_seed = 1, last_seed = 1; // of the whole campaign, also if this is the result of a shard
    uint64_t shard = 1, shards = 1;
    bool is_interrupted = false;
    double seconds = 0; // on the wall clock; for merged shards, the sum
    figures counts;

    struct failure {
        uint64_t seed;
        std::string complaint;
    };
    std::vector<failure> failures;
};

} // namespace campaign
