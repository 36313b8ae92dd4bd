// The fabric that a campaign tests: an embedded subnet in simulated time, its hosts, and the checks of both. If a rule
// is violated, the process prints one line and ends.
#pragma once

#include <cassert>
#include <cstdio>
#include <deque>
#include <memory>

#include "campaign/figures.h"
#include "campaign/node.h"
#include "campaign/plan.h"
#include "campaign/unhealed.h"
#include "campaign/wire-watch.h"
#include "host/result.h"
#include "recording/recorder.h"

namespace campaign
{

struct run_options {
    std::string module_folder;
    std::string log_path;             // empty if no log is written
    std::string capture_path;         // empty if nothing is captured
    std::FILE* record_file = nullptr; // receives a recording; null if nothing is recorded
};

// The longest time from the end of a harmful act to the end of its effects.
constexpr uint64_t harm_lasts_ticks = 500;

// Records the times at which acts harmed a host or the network.
struct harm_watch {
    int running_acts = 0;
    uint64_t last_tick = 0;
    bool has_done_harm = false;

    void begin()
    {
        ++running_acts;
        has_done_harm = true;
    }
    void end(uint64_t now_ticks)
    {
        assert(running_acts > 0);
        --running_acts;
        last_tick = now_ticks;
    }
    // Returns true if no harmful act is running, and the effects of earlier acts ended before this tick.
    bool was_quiet_since(uint64_t tick) const { return running_acts == 0 && (!has_done_harm || last_tick < tick); }
};

// The expected and the actual state, for the picture of a violation. Both are empty if the text of the fault contains
// them.
struct mismatch {
    std::string expected;
    std::string actual;
};

struct tested_fabric {
    tested_fabric(const campaign::plan& plan, const run_options& options);
    ~tested_fabric();

    // Runs the acts with these numbers, ends every fault, and checks that everything becomes right again. Call it once.
    // Returns an error only if the capture file could not be written. Every other fault is a violation.
    ats::result<> run(const std::vector<size_t>& act_numbers);

    // Prints the fault and ends the process.
    [[noreturn]] void violate(const std::string& fault, const mismatch& mismatch = {});

    // Adds a line to the log and to the digest.
    void note(const std::string& subject, const std::string& event);
    uint64_t now() const { return simulation->now(); }

    // Counts the act for its kind if `took_effect`. Returns `took_effect`.
    bool mark(const act& act, bool took_effect = true)
    {
        counts.marks[act.kind] += took_effect;
        return took_effect;
    }

    node& node_of(const act& act) { return nodes[act.host % nodes.size()]; }

    // Null if nothing is recorded.
    recording::recorder* recorder() { return recorder_.get(); }

    const std::string module_folder;
    const campaign::plan plan;
    figures counts;
    std::unique_ptr<exec::priority_schedule> order; // null: the order is drawn from the seed
    std::unique_ptr<exec::simulation> simulation;
    embedded::subnet subnet;
    wire_watch wire;
    std::deque<node> nodes;

    harm_watch network;
    std::vector<unhealed_fault> unhealed_faults;
    std::deque<std::vector<ib_service_record_v2_t>> kept_records; // copies of the SA's records, one for each minute

  private:
    void start_hosts();
    void perform(const act& act, size_t number, bool begins);
    void keep_records();

    void record_act(const act& act, size_t number, bool begins);
    void record_violation(const std::string& fault, const mismatch& mismatch);
    ats::result<> finish_recording();

    std::FILE* log_ = nullptr;
    std::unique_ptr<recording::recorder> recorder_;
    uint64_t next_keep_tick_ = 0;
};

// A task of the host calls this immediately after a change. It waits until the change must have reached the SA. If
// nothing else disturbed the host, its records must then be right.
void check_promptly(node& node, uint64_t act_tick);

// A task of the host calls this when a host is cut off for good. It waits for two verifications. If nothing else
// disturbed the host, its records must then be right, and it must find another healthy host.
void check_in_spite_of_cuts(node& node, const act& act);

// Ends every fault that can end, and compares everything with the expected state.
void check_at_the_end(tested_fabric& fabric);

} // namespace campaign
