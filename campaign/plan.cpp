#include "campaign/plan.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace campaign
{

namespace
{

constexpr uint64_t shortest_run = 48 * minute, longest_run = 56 * minute;
constexpr uint64_t request_timer_ticks = 1000;
constexpr uint64_t cluster_ticks = 40; // about as long as the service waits for an answer

class dice
{
  public:
    explicit dice(uint64_t seed) : engine_(seed) {}
    uint64_t below(uint64_t limit) { return engine_() % limit; }
    bool one_in(uint64_t n) { return below(n) == 0; }
    uint32_t bits() { return static_cast<uint32_t>(engine_()); }

  private:
    std::mt19937_64 engine_;
};

// Few hosts are usual, fifty are possible.
std::vector<host_shape> draw_hosts(dice& roll)
{
    const uint64_t most = uint64_t{2} << roll.below(6);
    std::vector<host_shape> hosts(std::min<uint64_t>(50, 2 + roll.below(most)));
    const bool traces = roll.one_in(3);
    for (host_shape& host : hosts) {
        host.hcas = roll.one_in(4) ? 2 : 1;
        host.ports = roll.one_in(3) ? 1 : 2;
        host.has_watching_ucm = roll.one_in(3);
        if (traces && &host - hosts.data() < 3)
            host.trace_level = roll.one_in(4) ? 5 : 4;
        else
            host.trace_level = roll.one_in(6) ? 0 : 1;
    }
    return hosts;
}

// A third of the campaigns have a perfect network, and a third of those perfect hosts too: there every registration
// must work at once, and nothing may be left behind.
uint32_t draw_kind(dice& roll, harm worst)
{
    static const int total = std::accumulate(act_kinds.begin(), act_kinds.end(), 0,
                                             [](int sum, const act_kind& each) { return sum + each.weight; });
    while (true) {
        int left = static_cast<int>(roll.below(static_cast<uint64_t>(total)));
        uint32_t kind = 0;
        while ((left -= act_kinds[kind].weight) >= 0) ++kind;
        if (act_kinds[kind].does <= worst) return kind;
    }
}

// When and where an act happens. Half of them follow closely on the one before, and mostly at the same host; some of
// the others fall on or beside the ticks of the request timers.
void place(act& placed, dice& roll, const act* last, const plan& in)
{
    placed.host = static_cast<uint32_t>(roll.below(in.hosts.size()));
    if (last && roll.one_in(2)) {
        placed.begin_tick = last->begin_tick + (roll.one_in(2) ? 0 : roll.below(cluster_ticks));
        if (!roll.one_in(3)) placed.host = last->host;
    } else {
        placed.begin_tick = roll.below(in.faults_end_tick);
        if (roll.one_in(2))
            placed.begin_tick += request_timer_ticks - placed.begin_tick % request_timer_ticks - 1 + roll.below(3);
    }
    placed.begin_tick = std::min(placed.begin_tick, in.faults_end_tick);
}

} // namespace

plan draw_plan(uint64_t seed)
{
    dice roll(seed);
    plan drawn{.seed = seed, .hosts = draw_hosts(roll), .acts = {}, .faults_end_tick = 0};
    drawn.faults_end_tick = shortest_run + roll.below(longest_run - shortest_run);
    const harm worst = !roll.one_in(3) ? harm::network : !roll.one_in(3) ? harm::host : harm::none;
    const size_t count = 50 + roll.below(50 + 20 * drawn.hosts.size());
    for (size_t i = 0; i < count; ++i) {
        act next{.kind = draw_kind(roll, worst), .a = roll.bits(), .b = roll.bits()};
        place(next, roll, drawn.acts.empty() ? nullptr : &drawn.acts.back(), drawn);
        const uint64_t longest = act_kinds[next.kind].longest_ticks;
        // Short ones are as likely as long ones.
        const uint64_t lasts = longest > 0 ? 1 + roll.below(1 + (longest >> roll.below(12))) : 0;
        next.end_tick = std::min(next.begin_tick + lasts, drawn.faults_end_tick);
        drawn.acts.push_back(next);
    }
    std::ranges::stable_sort(drawn.acts, {}, &act::begin_tick);
    return drawn;
}

std::string describe(const plan& of, size_t act_number)
{
    const act& told = of.acts[act_number];
    return std::to_string(act_number) + " at " + std::to_string(told.begin_tick) + " for " +
           std::to_string(told.end_tick - told.begin_tick) + ": " + act_kinds[told.kind].name +
           " host=" + std::to_string(told.host) + " a=" + std::to_string(told.a) + " b=" + std::to_string(told.b);
}

} // namespace campaign
