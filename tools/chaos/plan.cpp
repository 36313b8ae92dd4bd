#include "tools/chaos/plan.h"

#include <algorithm>
#include <random>
#include <set>

namespace chaos
{

namespace
{

constexpr int least_hosts = 2;
constexpr int most_acts = 4, most_lookups = 3;
constexpr int numbers = 9; // act::number is drawn from 1 to this value

struct weighted_kind {
    act_kind kind;
    int weight;
};
constexpr weighted_kind kinds[] = {
    {act_kind::kill_host, 4}, {act_kind::stop_host, 3}, {act_kind::pause_host, 3},  {act_kind::unplug, 4},
    {act_kind::lose, 4},      {act_kind::set_name, 3},  {act_kind::set_address, 3}, {act_kind::reload, 2},
    {act_kind::fill_disk, 2}, {act_kind::kill_sm, 2},   {act_kind::restart_sm, 2},  {act_kind::pause_sm, 2},
    {act_kind::start_sm, 2},
};

bool is_on_sm(act_kind kind)
{
    return kind >= act_kind::kill_sm;
}

// Draws rounds one after another. Keeps track of which hosts have ended and how many SMs run, because these decide
// which acts are possible.
class drawer
{
  public:
    drawer(uint64_t seed, int hosts) : engine_(seed), hosts_(hosts) {}

    round draw_round()
    {
        round round;
        busy_hosts_.clear();
        is_sm_busy_ = false;
        for (int count = 1 + number_below(most_acts); count > 0; --count) {
            act act{
                .kind = draw_kind(), .number = 1 + number_below(numbers), .lookups = number_below(most_lookups + 1)};
            if (is_on_sm(act.kind) ? begin_on_sm(act) : begin_on_host(act)) round.acts.push_back(act);
        }
        for (const int host : std::set<int>(gone_hosts_))
            if (number_below(2) == 0 || static_cast<int>(gone_hosts_.size()) > hosts_ - least_hosts) {
                round.returning_hosts.push_back(host);
                gone_hosts_.erase(host);
            }
        return round;
    }

  private:
    int number_below(int limit) { return static_cast<int>(engine_() % static_cast<uint64_t>(limit)); }

    act_kind draw_kind()
    {
        int sum = 0;
        for (const weighted_kind& each : kinds) sum += each.weight;
        int number = number_below(sum);
        for (const weighted_kind& each : kinds)
            if ((number -= each.weight) < 0) return each.kind;
        return kinds[0].kind;
    }

    // Completes an act on an SM. Returns false if the act is not possible. A round has at most one act on an SM.
    bool begin_on_sm(act& act)
    {
        const bool is_possible =
            !is_sm_busy_ && (sms_ == 1 || (act.kind != act_kind::pause_sm && act.kind != act_kind::start_sm));
        if (!is_possible) return false;
        is_sm_busy_ = true;
        act.number %= 2;
        if (act.kind == act_kind::start_sm) sms_ = 2;
        if (act.kind == act_kind::kill_sm || act.kind == act_kind::restart_sm) sms_ = 1;
        return true;
    }

    // Completes an act on a host, and draws the host. Returns false if the act is not possible.
    bool begin_on_host(act& act)
    {
        act.host = 1 + number_below(hosts_);
        if (gone_hosts_.count(act.host) > 0 || !busy_hosts_.insert({act.host, act.kind}).second) return false;
        // A host that this round has paused must not end, and gets no orders.
        const bool ends = act.kind == act_kind::kill_host || act.kind == act_kind::stop_host;
        if (ends && busy_hosts_.count({act.host, act_kind::pause_host}) > 0) return false;
        const bool is_order =
            act.kind == act_kind::set_address || act.kind == act_kind::set_name || act.kind == act_kind::reload;
        if (is_order && busy_hosts_.count({act.host, act_kind::pause_host}) > 0) return false;
        if (ends) gone_hosts_.insert(act.host);
        if (act.kind == act_kind::lose) act.number *= 10;
        return true;
    }

    std::mt19937_64 engine_;
    const int hosts_;
    int sms_ = 1;
    std::set<int> gone_hosts_;                      // stopped or killed, and not started again
    std::set<std::pair<int, act_kind>> busy_hosts_; // hosts and kinds of their acts in this round
    bool is_sm_busy_ = false;
};

std::string text_of(const act& act)
{
    const std::string host = "node" + std::to_string(act.host), number = std::to_string(act.number);
    switch (act.kind) {
    case act_kind::kill_host:
        return "kill " + host;
    case act_kind::stop_host:
        return "stop " + host;
    case act_kind::pause_host:
        return "pause " + host;
    case act_kind::unplug:
        return "unplug " + host;
    case act_kind::lose:
        return "lose " + number + "% to " + host;
    case act_kind::set_address:
        return "address " + number + " for " + host;
    case act_kind::set_name:
        return "name " + number + " for " + host;
    case act_kind::reload:
        return "reload " + host + " with name and address " + number;
    case act_kind::fill_disk:
        return "fill the disk of " + host;
    case act_kind::start_sm:
        return act.number == 1 ? "hand over to a second SM" : "start a standby SM";
    default:
        return name_of(act.kind); // the texts of the other acts on an SM contain no host and no number
    }
}

} // namespace

plan draw_plan(uint64_t seed, int most_hosts, int rounds)
{
    std::mt19937_64 engine(seed);
    plan plan{.seed = seed,
              .hosts = least_hosts + static_cast<int>(engine() % static_cast<uint64_t>(most_hosts - 1)),
              .rounds = {}};
    drawer drawer(engine(), plan.hosts);
    while (static_cast<int>(plan.rounds.size()) < rounds) plan.rounds.push_back(drawer.draw_round());
    return plan;
}

const char* name_of(act_kind kind)
{
    switch (kind) {
    case act_kind::kill_host:
        return "kill a host";
    case act_kind::stop_host:
        return "stop a host";
    case act_kind::pause_host:
        return "pause a host";
    case act_kind::unplug:
        return "unplug a host";
    case act_kind::lose:
        return "lose packets";
    case act_kind::set_address:
        return "set an address";
    case act_kind::set_name:
        return "set a name";
    case act_kind::reload:
        return "reload a configuration";
    case act_kind::fill_disk:
        return "fill a disk";
    case act_kind::kill_sm:
        return "kill the SM";
    case act_kind::restart_sm:
        return "restart the SM";
    case act_kind::pause_sm:
        return "pause the SM";
    case act_kind::start_sm:
        return "start a second SM";
    }
    return "";
}

std::string describe(const act& act)
{
    return text_of(act) + (act.lookups > 0 ? ", ask " + std::to_string(act.lookups) + " times" : "");
}

std::string describe(const round& round)
{
    std::string text;
    for (const act& act : round.acts) text += (text.empty() ? "" : "; ") + describe(act);
    for (const int host : round.returning_hosts)
        text += (text.empty() ? "" : "; ") + ("start node" + std::to_string(host));
    return text.empty() ? "nothing" : text;
}

} // namespace chaos
