// The plan of a run: a fabric, and acts that each begin and end at a tick. The plan is drawn from a seed before
// anything runs. Therefore a list of acts can be replayed, and shortened until only the necessary acts remain. A
// campaign runs the plans of many seeds.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/exec/schedule.h"
#include "host/fabric/embedded/faults.h"

namespace campaign
{

// One second, and one minute, in ticks.
constexpr uint64_t second = 1000;
constexpr uint64_t minute = 60 * second;

struct tested_fabric;

// The options of a plan. Each option changes the plan of a seed. Without options, the plan is the standard one.
struct plan_options {
    bool asks_for_paths = false;      // hosts also ask for paths
    bool has_unhealed_faults = false; // ports are cut off for good, see unhealed.h
    bool has_priorities = false;      // tasks run by random priorities, see exec::priority_schedule
    bool is_swarm = false;            // each seed draws its kinds of acts, and may switch on the other options

    bool operator==(const plan_options&) const = default;
};

struct plan_option {
    const char* name; // on the command line, after "--"
    bool plan_options::*member;
    const char* help;
};
extern const std::array<plan_option, 4> plan_option_table;

// Returns the options as text for a command line, each with a space before it.
std::string describe(const plan_options& options);

// Tells whose registrations may fail during an act.
enum class harm {
    none,
    host,    // the registrations of the act's host
    network, // the registrations of all hosts
};

struct act {
    uint64_t begin_tick = 0;
    uint64_t end_tick = 0;
    uint32_t kind = 0; // index into act_kinds

    // Random numbers. `host` selects a host. Each kind of act uses `a` and `b` in its own way.
    uint32_t host = 0;
    uint32_t a = 0;
    uint32_t b = 0;
};

struct act_kind {
    const char* name;
    int weight; // the chance of this kind, in proportion to the other kinds that the plan may have
    campaign::harm harm;
    uint64_t longest_ticks; // maximum duration; 0 if it begins and ends at once
    void (*begin)(tested_fabric&, const act&);
    void (*end)(tested_fabric&, const act&); // null if there is nothing to undo

    // The campaign counts how often the acts of each kind took effect. `mark` is the name of this count in the summary.
    // `effect` is the fabric's counter for it. If `effect` is null, the campaign counts by itself, mostly with
    // tested_fabric::mark().
    const char* mark;
    uint64_t embedded::fault_effects::*effect = nullptr;
    bool plan_options::*option = nullptr; // only plans with this option have such acts; null means all plans
};
constexpr size_t act_kind_count = 43;
extern const std::array<act_kind, act_kind_count> act_kinds;

// Returns true if the kind is a fault that never heals. It has no end, and harms only the hosts that it cuts off.
bool is_unhealed(const act_kind& kind);

// Returns true if plans with these options may have acts of this kind.
bool may_occur(const act_kind& kind, const plan_options& options);

constexpr int debug_trace_level = 4, highest_trace_level = 5;

struct host_shape {
    int hcas;
    int ports;
    bool has_watching_ucm; // see questions.h
    int trace_level;       // of the module's log: 0 to highest_trace_level
    bool has_models;       // port_model checks the lines of the log; needs at least debug_trace_level
};

struct plan {
    uint64_t seed;
    std::vector<host_shape> hosts;
    std::vector<act> acts;
    uint64_t faults_end_tick;                         // no act lasts beyond this tick
    plan_options options;                             // the options of the command line
    std::optional<exec::priority_options> priorities; // for --pct; replaces the random order
    bool has_plain_order = false;            // tasks run in the order in which they become ready; no random order
    std::optional<uint64_t> order_seed = {}; // the seed for the order of tasks, instead of `seed`
    std::vector<std::string> changes;        // changes that were made to the plan of the seed, see simplify.h
    plan_options drawn_options;              // the options of the run: `options`, and those that --swarm has added
};

// Draws the plan of a seed. The same arguments always give the same plan.
plan draw_plan(uint64_t seed, const plan_options& options);

// Formats an act as "17 at 1234 for 500: loss host=3 a=17 b=4". Times are in ticks. The digest of a run depends on this
// text.
std::string describe(const plan& plan, size_t act_number);

} // namespace campaign
