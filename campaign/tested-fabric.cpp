#include "campaign/tested-fabric.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <unistd.h>

namespace campaign
{

arena::arena(const plan& of, const options& chosen)
    : module_folder(chosen.module_folder), what(of),
      sim(exec::make_simulation({.seed = of.seed, .explore_switches = true})), net(*sim, {.fault_seed = of.seed}),
      wire(*this)
{
    if (!chosen.log_path.empty() && !(log_ = std::fopen(chosen.log_path.c_str(), "w")))
        violate("cannot write " + chosen.log_path);
    for (const host_shape& shape : what.hosts) hosts.emplace_back(*this, hosts.size(), shape);
    wire.begin(chosen.capture_path);
    net.set_tap(&wire);
    done.seeds = 1;
}

arena::~arena()
{
    net.set_tap(nullptr);
    if (log_) std::fclose(log_);
}

void arena::note(const std::string& who, const std::string& what_happened)
{
    const std::string line = std::to_string(now()) + " " + who + ": " + what_happened + "\n";
    for (const char c : line) done.digest = (done.digest ^ static_cast<uint8_t>(c)) * 0x100000001B3; // FNV-1a
    if (log_) std::fputs(line.c_str(), log_);
}

void arena::violate(const std::string& what_is_wrong)
{
    note("violation", what_is_wrong);
    if (log_) std::fflush(log_);
    std::fprintf(stderr, "at tick %llu: %s\n", static_cast<unsigned long long>(now()), what_is_wrong.c_str());
    if (const auto flushed = wire.flush_capture(); !flushed) std::fprintf(stderr, "%s\n", flushed.error().text.c_str());
    _exit(1);
}

void arena::run(const std::vector<size_t>& act_numbers)
{
    struct step {
        size_t act;
        bool begins;
    };
    std::multimap<uint64_t, step> steps;
    for (const size_t number : act_numbers) {
        steps.emplace(what.acts[number].begin_tick, step{number, true});
        if (act_kinds[what.acts[number].kind].end) steps.emplace(what.acts[number].end_tick, step{number, false});
    }
    for (node& each : hosts) {
        each.start("boot", [&each] {
            for (const char* module : {"ibat", "ucm", "ats"}) each.load(module);
        });
        for (fabric::hca* hca : each.hcas)
            for (int port = 1; port <= hca->port_count(); ++port)
                (void)net.link_up(each.host.name(), hca->name(), port);
    }
    for (const auto& [tick, next] : steps) {
        for (; kept_until_tick_ <= tick; kept_until_tick_ += minute) keep_records();
        sim->run_until(tick);
        perform(what.acts[next.act], next.act, next.begins);
    }
    sim->run_until(what.faults_end_tick);
    const embedded::fault_effects effects = net.effects();
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        if (const auto effect = act_kinds[kind].effect) done.marks[kind] = effects.*effect;
    check_in_the_end(*this);
    const embedded::traffic_counts counts = net.counts();
    done.faults += counts.dropped + counts.duplicated + counts.corrupted + counts.refused;
    done.simulated_ticks = now();
    if (const auto flushed = wire.flush_capture(); !flushed) throw std::runtime_error(flushed.error().text);
}

void arena::perform(const act& it, size_t number, bool begins)
{
    const act_kind& kind = act_kinds[it.kind];
    note(begins ? "begins" : "ends", describe(what, number));
    harm_watch* harmed = kind.does == harm::network ? &network : kind.does == harm::host ? &host(it).harm() : nullptr;
    if (begins) {
        ++done.acts;
        if (kind.does != harm::none) ++done.faults;
        if (harmed) harmed->begin();
        kind.begin(*this, it);
    } else {
        kind.end(*this, it);
    }
    if (harmed && (!begins || !kind.end)) harmed->end(now() + harm_lasts_ticks);
    host(it).reap();
}

void arena::keep_records()
{
    sim->run_until(kept_until_tick_);
    kept_records.push_back(net.save_records());
}

} // namespace campaign
