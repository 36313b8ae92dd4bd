// The fabric that a run tests: an embedded subnet in simulated time, its hosts, and the checks of both. If a check
// finds a fault, the process prints the fault and ends.
#pragma once

#include <cassert>
#include <cstdio>
#include <deque>
#include <memory>

#include "campaign/figures.h"
#include "campaign/mismatch.h"
#include "campaign/node.h"
#include "campaign/plan.h"
#include "campaign/unhealed.h"
#include "campaign/wire-watch.h"
#include "host/result.h"
#include "recording/recorder.h"

namespace campaign
{

struct run_options {
    std::string module_folder;        // as on the command line; empty: the modules of the program
    std::string log_path;             // empty if no log is written
    std::string capture_path;         // empty if nothing is captured
    std::FILE* record_file = nullptr; // receives a recording; null if nothing is recorded
    std::string command;              // the recording contains this command
};

// The longest time from the end of a harmful act to the end of its effects.
constexpr uint64_t harm_lasts_ticks = 500;

// Notes the times at which acts may make registrations fail, for one host or for all hosts. See `harm` in plan.h.
struct harm_watch {
    int running_acts = 0;
    uint64_t effects_end_tick = 0; // when the effects of the harmful acts that have ended are over
    bool has_done_harm = false;

    void begin()
    {
        ++running_acts;
        has_done_harm = true;
    }
    void end(uint64_t end_tick)
    {
        assert(running_acts > 0);
        --running_acts;
        effects_end_tick = end_tick;
    }
    // Returns true if no harmful act is running, and the effects of all earlier ones ended before this tick.
    bool was_quiet_since(uint64_t tick) const
    {
        return running_acts == 0 && (!has_done_harm || effects_end_tick < tick);
    }
};

struct tested_fabric {
    tested_fabric(const campaign::plan& plan, const run_options& options);
    ~tested_fabric();

    // Runs the acts with these numbers, ends every fault that can end, and checks that everything becomes right again.
    // Call it once. If a check finds a fault, run() does not return (see violate()). Returns an error only if the
    // recording or the capture file could not be written.
    ats::result<> run(const std::vector<size_t>& act_numbers);

    // Prints the fault, completes the recording and the capture file, and ends the process with exit code 1.
    [[noreturn]] void violate(const std::string& fault, const mismatch& mismatch = {});

    // Records that the closing phase has come to this step.
    void begin_closing_step(const std::string& text);

    // Adds a line to the log and to the digest.
    void note(const std::string& subject, const std::string& event);
    uint64_t now() const { return simulation->now(); }

    // Counts an effect for the act's kind if `took_effect`. Returns `took_effect`.
    bool mark(const act& act, bool took_effect = true)
    {
        counts.marks[act.kind] += took_effect;
        return took_effect;
    }

    node& node_of(const act& act) { return nodes[act.host % nodes.size()]; }

    // Returns the recorder, or null if nothing is recorded.
    recording::recorder* recorder() { return recorder_.get(); }

    const std::string module_folder;
    const campaign::plan plan;
    figures counts;
    std::unique_ptr<exec::priority_schedule> order; // for --pct; otherwise null
    std::unique_ptr<exec::simulation> simulation;
    embedded::subnet subnet;
    wire_watch wire;
    std::deque<node> nodes;

    // The harm of acts that affect all hosts; node::harm() is for one host.
    harm_watch network;
    std::vector<unhealed_fault> unhealed_faults;
    std::deque<std::vector<ib_service_record_v2_t>> kept_records; // the SA's records at each full minute

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

// Call it in a task of the host immediately after the change at `act_tick`. Waits until the change must have reached
// the SA. Then checks that the host's records are right. If something else has disturbed the host, checks nothing.
void check_promptly(node& node, uint64_t act_tick);

// Call it in a task of each host after a port of some host was cut off for good. Waits for two verifications. Then
// checks that the host's records are right, and that the host finds another healthy host with one HCA, if there is one.
// If something else has disturbed the host, checks nothing. Marks `act` as effective if the host finds that other host.
void check_in_spite_of_cuts(node& node, const act& act);

// The closing phase of a run. Ends every fault that can end. Checks all records and lookups, and that unloading all
// modules leaves nothing behind.
void check_at_the_end(tested_fabric& fabric);

} // namespace campaign
