#include "campaign/tested-fabric.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <unistd.h>

#include "host/world/module-folder.h"

namespace campaign
{

tested_fabric::tested_fabric(const campaign::plan& plan, const run_options& options)
    : module_folder(options.module_folder.empty() ? world::default_module_folder() : options.module_folder), plan(plan),
      order(plan.priorities ? std::make_unique<exec::priority_schedule>(*plan.priorities) : nullptr),
      simulation(exec::make_simulation({.seed = plan.order_seed.value_or(plan.seed),
                                        .explore_switches = !plan.has_plain_order,
                                        .order = order.get()})),
      subnet(*simulation, {.fault_seed = plan.seed}), wire(*this)
{
    if (!options.log_path.empty()) {
        log_ = std::fopen(options.log_path.c_str(), "w");
        if (!log_) violate("cannot write " + options.log_path);
    }
    if (options.record_file) recorder_ = std::make_unique<recording::recorder>(options.record_file, options.command);
    for (const host_shape& shape : plan.hosts) nodes.emplace_back(*this, nodes.size(), shape);
    wire.begin(options.capture_path);
    subnet.set_tap(&wire);
    if (recorder_) recorder_->follow(subnet);
    counts.seeds = 1;
}

tested_fabric::~tested_fabric()
{
    if (recorder_) recorder_->stop();
    subnet.set_tap(nullptr);
    if (log_) std::fclose(log_);
}

void tested_fabric::note(const std::string& subject, const std::string& event)
{
    const std::string line = std::to_string(now()) + " " + subject + ": " + event + "\n";
    for (const char c : line) counts.digest = (counts.digest ^ static_cast<uint8_t>(c)) * 0x100000001B3; // FNV-1a
    if (log_) std::fputs(line.c_str(), log_);
}

void tested_fabric::violate(const std::string& fault, const mismatch& mismatch)
{
    note("violation", fault);
    if (log_) std::fflush(log_);
    record_violation(fault, mismatch);
    const ats::result<> recording = finish_recording();
    std::fprintf(stderr, "at tick %llu: %s\n", static_cast<unsigned long long>(now()), fault.c_str());
    const ats::result<> flush = wire.flush_capture();
    for (const ats::result<>& result : {recording, flush})
        if (!result) std::fprintf(stderr, "%s\n", result.error().text.c_str());
    _exit(1);
}

ats::result<> tested_fabric::run(const std::vector<size_t>& act_numbers)
{
    struct step {
        size_t act;
        bool begins;
    };
    std::multimap<uint64_t, step> steps;
    for (const size_t number : act_numbers) {
        assert(number < plan.acts.size());
        const act& act = plan.acts[number];
        steps.emplace(act.begin_tick, step{number, true});
        if (act_kinds[act.kind].end) steps.emplace(act.end_tick, step{number, false});
    }
    start_hosts();
    for (const auto& [tick, step] : steps) {
        for (; next_keep_tick_ <= tick; next_keep_tick_ += minute) keep_records();
        simulation->run_until(tick);
        perform(plan.acts[step.act], step.act, step.begins);
    }
    simulation->run_until(plan.faults_end_tick);
    const embedded::fault_effects effects = subnet.effects();
    for (size_t kind = 0; kind < act_kind_count; ++kind) {
        if (const auto effect = act_kinds[kind].effect) counts.marks[kind] = effects.*effect;
        if (order && act_kinds[kind].option == &plan_options::has_priorities) counts.marks[kind] = order->overtakings();
    }
    count_unhealed_faults(*this);
    check_at_the_end(*this);
    const embedded::subnet_counts traffic = subnet.counts();
    counts.faults += traffic.dropped + traffic.duplicated + traffic.corrupted + traffic.refused;
    counts.simulated_ticks = now();
    if (const ats::result<> recording = finish_recording(); !recording) return recording;
    return wire.flush_capture();
}

// Loads the modules, in one task for each host, and brings all links up.
void tested_fabric::start_hosts()
{
    for (node& node : nodes) {
        node.start("boot", [&node] {
            for (const char* module : {"ibat", "ucm", "ats"}) node.load(module);
        });
        for (fabric::hca* hca : node.hcas)
            for (int port = 1; port <= hca->port_count(); ++port)
                (void)subnet.link_up(node.host.name(), hca->name(), port);
    }
}

void tested_fabric::perform(const act& act, size_t number, bool begins)
{
    const act_kind& kind = act_kinds[act.kind];
    node& node = node_of(act);
    note(begins ? "begins" : "ends", describe(plan, number));
    record_act(act, number, begins);
    harm_watch* watch = nullptr;
    if (kind.harm == harm::network) watch = &network;
    if (kind.harm == harm::host) watch = &node.harm();
    if (begins) {
        ++counts.acts;
        if (watch) {
            ++counts.faults;
            watch->begin();
        }
        kind.begin(*this, act);
    } else {
        kind.end(*this, act);
    }
    if (recorder_) recorder_->note_faults(now());
    const bool is_over = !begins || !kind.end;
    if (watch && is_over) watch->end(now() + harm_lasts_ticks);
    node.reap();
}

void tested_fabric::keep_records()
{
    simulation->run_until(next_keep_tick_);
    kept_records.push_back(subnet.save_records());
    if (recorder_) recorder_->note_table(now());
}

void tested_fabric::record_act(const act& act, size_t number, bool begins)
{
    if (!recorder_) return;
    const act_kind& kind = act_kinds[act.kind];
    static constexpr const char* harm_texts[] = {"none", "host", "network"};
    recorder_->note(now(), "act",
                    {{"number", number},
                     {"phase", !kind.end ? "moment"
                               : begins  ? "begin"
                                         : "end"},
                     {"name", kind.name},
                     {"host", node_of(act).host.name()},
                     {"harm", harm_texts[static_cast<size_t>(kind.harm)]},
                     {"a", act.a},
                     {"b", act.b}});
}

void tested_fabric::begin_closing_step(const std::string& text)
{
    if (recorder_) recorder_->note(now(), "step", {{"text", text}, {"phase", "closing"}});
}

void tested_fabric::record_violation(const std::string& fault, const mismatch& mismatch)
{
    if (!recorder_) return;
    recording::json fields = {{"text", fault}};
    if (!mismatch.expected.empty()) fields.update({{"expected", mismatch.expected}, {"actual", mismatch.actual}});
    recorder_->note(now(), "violation", fields);
}

ats::result<> tested_fabric::finish_recording()
{
    if (!recorder_) return {};
    recorder_->note_table(now());
    return recorder_->finish(now());
}

} // namespace campaign
