#include "campaign/plan.h"

#include <algorithm>
#include <numeric>
#include <random>

#include "campaign/unhealed.h"

namespace campaign
{

namespace
{

constexpr uint64_t shortest_run = 48 * minute, longest_run = 56 * minute;
constexpr uint64_t longest_check = 8 * minute; // time to check the healthy hosts after a port was cut off
constexpr uint64_t request_timer_ticks = 1000;
// Half of the acts begin within this time after the previous act (see place()). Two waits for the answer to a Delete
// last about as long.
constexpr uint64_t cluster_ticks = 40;

class dice
{
  public:
    explicit dice(uint64_t seed) : engine_(seed) {}
    uint64_t number_below(uint64_t limit) { return engine_() % limit; }
    bool one_in(uint64_t n) { return number_below(n) == 0; }
    uint32_t bits() { return static_cast<uint32_t>(engine_()); }

  private:
    std::mt19937_64 engine_;
};

// Most fabrics have few hosts. Some have up to fifty.
std::vector<host_shape> draw_hosts(dice& dice)
{
    const uint64_t limit = uint64_t{2} << dice.number_below(6);
    std::vector<host_shape> hosts(std::min<uint64_t>(50, 2 + dice.number_below(limit)));
    const bool has_models = dice.one_in(3);
    for (host_shape& host : hosts) {
        host.hcas = dice.one_in(4) ? 2 : 1;
        host.ports = dice.one_in(3) ? 1 : 2;
        host.has_watching_ucm = dice.one_in(3);
        host.has_models = has_models && &host - hosts.data() < 3;
        if (host.has_models)
            host.trace_level = dice.one_in(4) ? highest_trace_level : debug_trace_level;
        else
            host.trace_level = dice.one_in(6) ? 0 : 1;
    }
    return hosts;
}

// The weight of each kind of act. The chance of a kind is its share of the sum.
using weights = std::array<int, act_kind_count>;

bool is_wanted(const act_kind& kind, const plan_options& options)
{
    return !kind.option || options.*kind.option;
}

weights weights_of(const plan_options& options)
{
    weights weights{};
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        if (is_wanted(act_kinds[kind], options) && !is_unhealed(act_kinds[kind]))
            weights[kind] = act_kinds[kind].weight;
    return weights;
}

// Removes about half of the kinds, and makes some of the others up to eight times as frequent. Then a seed may have
// combinations of acts that are rare when all kinds occur. The kinds 0 and 1 only ask questions and do no harm. One of
// these two always remains, so draw_kind() always finds a kind.
void draw_swarm(dice& dice, weights& weights)
{
    const size_t kept_kind = dice.number_below(2);
    for (size_t kind = 0; kind < act_kind_count; ++kind) {
        const bool is_left_out = dice.one_in(2);
        const int factor = 1 << dice.number_below(4);
        weights[kind] *= is_left_out && kind != kept_kind ? 0 : factor;
    }
}

// Draws a kind of act, by weight, that does no more harm than `worst`.
uint32_t draw_kind(dice& dice, harm worst, const weights& weights)
{
    const int total = std::accumulate(weights.begin(), weights.end(), 0);
    while (true) {
        int weight = static_cast<int>(dice.number_below(static_cast<uint64_t>(total)));
        uint32_t kind = 0;
        while (weight >= weights[kind]) weight -= weights[kind++];
        if (act_kinds[kind].harm <= worst) return kind;
    }
}

// Draws the time and the host of an act. Half of the acts begin soon after the previous act, mostly on the same host.
// Half of the other acts begin at a multiple of 1000 ticks, or one tick before or after it: then the request timers of
// modules expire that were loaded at the beginning.
void place(act& act, dice& dice, const campaign::act* last, const plan& plan)
{
    act.host = static_cast<uint32_t>(dice.number_below(plan.hosts.size()));
    if (last && dice.one_in(2)) {
        act.begin_tick = last->begin_tick + (dice.one_in(2) ? 0 : dice.number_below(cluster_ticks));
        if (!dice.one_in(3)) act.host = last->host;
    } else {
        act.begin_tick = dice.number_below(plan.faults_end_tick);
        if (dice.one_in(2))
            act.begin_tick += request_timer_ticks - act.begin_tick % request_timer_ticks - 1 + dice.number_below(3);
    }
    act.begin_tick = std::min(act.begin_tick, plan.faults_end_tick);
}

// In a third of the plans, no act harms the network. In a third of these plans, no act harms a host either: then only
// the cuts of add_unhealed_faults() excuse a wrong record.
harm draw_worst_harm(dice& dice)
{
    if (!dice.one_in(3)) return harm::network;
    return dice.one_in(3) ? harm::none : harm::host;
}

// Returns the kind of act that has this `begin` function.
uint32_t kind_of(void (*begin)(tested_fabric&, const act&))
{
    return static_cast<uint32_t>(std::ranges::find(act_kinds, begin, &act_kind::begin) - act_kinds.begin());
}

// Adds one to three faults that never heal, each with a check of the healthy hosts. The faults affect hosts with
// consecutive numbers, at most half of all, so at least one host stays healthy. A separate random sequence draws them,
// so the other acts of the seed do not change.
void add_unhealed_faults(plan& plan)
{
    constexpr uint64_t own_sequence = 0x756E6865616C6564;
    dice dice(plan.seed ^ own_sequence);
    const uint64_t limit = most_hosts_cut(plan.hosts.size()), first_host = dice.number_below(plan.hosts.size());
    for (uint64_t count = 1 + dice.number_below(3); count > 0; --count) {
        const uint64_t tick = dice.number_below(plan.faults_end_tick - longest_check);
        act next{.begin_tick = tick, .end_tick = tick, .a = dice.bits(), .b = dice.bits()};
        do next.kind = static_cast<uint32_t>(dice.number_below(act_kind_count));
        while (!is_unhealed(act_kinds[next.kind]));
        const uint64_t distance = next.kind == kind_of(cut_partition_off) ? 0 : dice.number_below(limit);
        next.host = static_cast<uint32_t>((first_host + distance) % plan.hosts.size());
        plan.acts.push_back(next);
        next.kind = kind_of(check_the_rest);
        plan.acts.push_back(next);
    }
}

// Draws the options of exec::priority_schedule. A round has 64 to 8192 choices. Each round draws all priorities again,
// so short rounds change the order of tasks often. In a long round, a task of low priority waits while many others run.
exec::priority_options draw_priorities(uint64_t seed)
{
    constexpr uint64_t own_sequence = 0x7072696F72697479;
    dice dice(seed ^ own_sequence);
    return {.seed = seed,
            .depth = static_cast<int>(1 + dice.number_below(4)),
            .round_choices = uint64_t{64} << dice.number_below(8)};
}

// Draws the duration of an act: at most longest_ticks, or a half, a quarter and so on down to 1/2048 of it. Each of
// these limits has the same chance.
uint64_t draw_length(dice& dice, uint64_t longest_ticks)
{
    return 1 + dice.number_below(1 + (longest_ticks >> dice.number_below(12)));
}

} // namespace

const std::array<plan_option, 4> plan_option_table = {
    {{"paths", &plan_options::asks_for_paths, "let hosts ask for paths, too"},
     {"unhealed", &plan_options::has_unhealed_faults, "add faults that never heal, at up to half of the hosts"},
     {"pct", &plan_options::has_priorities, "run the tasks by random priorities (PCT)"},
     {"swarm", &plan_options::is_swarm, "draw for each seed which kinds of acts there are, and how often"}}};

std::string describe(const plan_options& options)
{
    std::string text;
    for (const plan_option& each : plan_option_table)
        if (options.*each.member) text += std::string(" --") + each.name;
    return text;
}

bool is_unhealed(const act_kind& kind)
{
    return kind.option == &plan_options::has_unhealed_faults && kind.weight > 0;
}

bool may_occur(const act_kind& kind, const plan_options& options)
{
    return is_wanted(kind, options) || options.is_swarm;
}

plan draw_plan(uint64_t seed, const plan_options& options)
{
    dice dice(seed);
    plan plan{.seed = seed,
              .hosts = draw_hosts(dice),
              .acts = {},
              .faults_end_tick = 0,
              .options = options,
              .priorities = {},
              .has_plain_order = false,
              .order_seed = {},
              .changes = {},
              .drawn_options = options};
    plan.faults_end_tick = shortest_run + dice.number_below(longest_run - shortest_run);
    const harm worst = draw_worst_harm(dice);
    size_t count = 50 + dice.number_below(50 + 20 * plan.hosts.size());
    weights weights = weights_of(options);
    if (options.is_swarm) {
        for (const plan_option& each : plan_option_table)
            if (dice.one_in(2)) plan.drawn_options.*each.member = true;
        weights = weights_of(plan.drawn_options);
        draw_swarm(dice, weights);
        count = count * (1 + dice.number_below(8)) / 4;
    }
    for (size_t i = 0; i < count; ++i) {
        act next{.kind = draw_kind(dice, worst, weights), .a = dice.bits(), .b = dice.bits()};
        place(next, dice, plan.acts.empty() ? nullptr : &plan.acts.back(), plan);
        const uint64_t longest = act_kinds[next.kind].longest_ticks;
        const uint64_t ticks = longest > 0 ? draw_length(dice, longest) : 0;
        next.end_tick = std::min(next.begin_tick + ticks, plan.faults_end_tick);
        plan.acts.push_back(next);
    }
    if (plan.drawn_options.has_priorities) plan.priorities = draw_priorities(seed);
    if (plan.drawn_options.has_unhealed_faults) add_unhealed_faults(plan);
    std::ranges::stable_sort(plan.acts, {}, &act::begin_tick);
    return plan;
}

std::string describe(const plan& plan, size_t act_number)
{
    const act& act = plan.acts[act_number];
    return std::to_string(act_number) + " at " + std::to_string(act.begin_tick) + " for " +
           std::to_string(act.end_tick - act.begin_tick) + ": " + act_kinds[act.kind].name +
           " host=" + std::to_string(act.host) + " a=" + std::to_string(act.a) + " b=" + std::to_string(act.b);
}

} // namespace campaign
