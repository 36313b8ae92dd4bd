#include "campaign/plan.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace campaign
{

namespace
{

constexpr uint64_t minute = 60'000;
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
        host.traces = traces && &host - hosts.data() < 3;
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

// Half of the acts follow closely on one another, and some of the others fall on or beside the ticks of the request
// timers.
uint64_t draw_tick(dice& roll, uint64_t last_tick, uint64_t end_tick)
{
    if (roll.one_in(2)) return last_tick + (roll.one_in(2) ? 0 : roll.below(cluster_ticks));
    const uint64_t tick = roll.below(end_tick);
    return roll.one_in(2) ? tick : (tick / request_timer_ticks + 1) * request_timer_ticks - 1 + roll.below(3);
}

} // namespace

plan draw_plan(uint64_t seed)
{
    dice roll(seed);
    plan drawn{.seed = seed, .hosts = draw_hosts(roll), .acts = {}, .faults_end_tick = 0};
    drawn.faults_end_tick = shortest_run + roll.below(longest_run - shortest_run);
    const harm worst = !roll.one_in(3) ? harm::network : !roll.one_in(3) ? harm::host : harm::none;
    const size_t count = 50 + roll.below(50 + 20 * drawn.hosts.size());
    uint64_t tick = 0;
    for (size_t i = 0; i < count; ++i) {
        tick = draw_tick(roll, tick, drawn.faults_end_tick);
        const uint32_t kind = draw_kind(roll, worst);
        const uint64_t length = act_kinds[kind].longest_ticks;
        // Short ones are as likely as long ones.
        const uint64_t lasts = length > 0 ? 1 + roll.below(1 + (length >> roll.below(12))) : 0;
        drawn.acts.push_back({.begin_tick = std::min(tick, drawn.faults_end_tick),
                              .end_tick = std::min(tick + lasts, drawn.faults_end_tick),
                              .kind = kind,
                              .host = static_cast<uint32_t>(roll.below(drawn.hosts.size())),
                              .a = roll.bits(),
                              .b = roll.bits()});
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
