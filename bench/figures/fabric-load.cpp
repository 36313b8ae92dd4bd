#include "bench/figures/fabric-load.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <stdexcept>

#include "bench/figures/whole-subnet.h"
#include "host/exec/shortage.h"
#include "host/stack/hca-events.h"
#include "host/world/resolution.h"
#include "host/world/text.h"

namespace
{

constexpr uint64_t ticks_per_second = 1000;

struct load_settings {
    std::map<std::string, double> values = {
        {"period", 60},      // seconds between two checks of a host's record
        {"skew", 1},         // percent of the period: the longest random delay that is added to the period
        {"spread", 0},       // seconds: a link-up or a request to register again waits for a random part of this time
        {"start-spread", 0}, // seconds: a host starts after a random part of this time
        {"queue", 65536},    // the capacity of the SA's queue, in requests
        // The time in which the SA serves a request, in microseconds: a fixed time, and a time for each record that the
        // SA has.
        {"set-us", 9.5},
        {"set-record-us", 0.006},
        {"delete-us", 9.5},
        {"delete-record-us", 0.006},
        {"gid-us", 9.5},
        {"gid-record-us", 0.006},
        {"address-us", 9.5},
        {"address-record-us", 0.01},
        {"path-us", 11}, // a path, or any other request; it takes no time for each record
    };
    double operator[](const std::string& name) const { return values.at(name); }
};

load_settings read_settings(const std::vector<std::string>& words)
{
    load_settings settings;
    for (const std::string& word : words) {
        const size_t end = word.find('=');
        const auto entry = settings.values.find(word.substr(0, end));
        if (end == std::string::npos || entry == settings.values.end())
            throw std::runtime_error("unknown setting " + word);
        entry->second = std::stod(word.substr(end + 1));
    }
    return settings;
}

embedded::sa_limits limits_of(const load_settings& settings)
{
    const auto time = [&](const std::string& kind) {
        return embedded::service_time{.fixed_us = settings[kind + "-us"], .record_us = settings[kind + "-record-us"]};
    };
    return {.set = time("set"),
            .remove = time("delete"),
            .get_by_gid = time("gid"),
            .get_by_address = time("address"),
            .get_path = {.fixed_us = settings["path-us"]},
            .other = {.fixed_us = settings["path-us"]},
            .queue_capacity = static_cast<size_t>(settings["queue"])};
}

// Counts the requests to the SA, second by second. The fabric holds its lock when it calls crossed().
class request_counter final : public fabric::tap
{
  public:
    void crossed(uint64_t now_ticks, uint16_t, const fabric::address&, const fabric::mad_bytes& mad) override
    {
        if (mad[3] & MAD_METHOD_RESPONSE) return;
        const size_t moment = now_ticks / ticks_per_second;
        if (by_second.size() <= moment) by_second.resize(moment + 1);
        ++by_second[moment];
    }
    std::vector<uint64_t> by_second;
};

// A lookup by a random host. observe() starts one each second.
struct probe {
    uint64_t begin_tick;
    bool is_found = false;
    exec::task* task = nullptr;
};

class fabric_under_load
{
  public:
    fabric_under_load(int hosts, const load_settings& settings) : world_(hosts), settings_(settings)
    {
        world_.subnet.set_tap(&counter_);
    }
    ~fabric_under_load() { world_.subnet.set_tap(nullptr); }

    bench_world& world() { return world_; }

    ats::result<> run()
    {
        if (const auto up = power_on(); !up) return up;
        scenario("rest", 120, [] {});
        scenario("restart", 180, [&] { world_.subnet.forget_all(); });
        scenario("restart-asking", 180, [&] {
            world_.subnet.forget_all();
            world_.subnet.request_registrations();
        });
        scenario("hand-over", 180, [&] {
            world_.subnet.forget_all();
            if (!world_.subnet.set_sm(sm_lid_after_hand_over, 0)) throw std::runtime_error("the SM does not move");
            world_.subnet.request_registrations();
        });
        scenario("silence", 300, [&] { world_.subnet.faults.sa_silent = true; });
        scenario("flapping-rack", 180, [] {});
        return {};
    }

  private:
    static constexpr uint16_t sm_lid_after_hand_over = 49151;
    static constexpr uint64_t silent_seconds = 120, flap_seconds = 120, flap_period_seconds = 10;
    static constexpr size_t rack_hosts = 48;

    uint64_t now_second() { return world_.sim->now() / ticks_per_second; }

    // Starts all hosts. Each host starts at a random time within the setting "start-spread". Then observes the scenario
    // "power-on".
    ats::result<> power_on()
    {
        restart_queue();
        std::vector<uint64_t> starts;
        const auto spread = static_cast<uint64_t>(settings_["start-spread"] * ticks_per_second);
        for (size_t i = 0; i < world_.hosts.size(); ++i) starts.push_back(spread ? dice_() % spread : 0);
        std::ranges::sort(starts);
        size_t next_host = 0;
        ats::result<> result;
        const auto start_due_hosts = [&] {
            while (result && next_host < starts.size() && starts[next_host] <= world_.sim->now())
                result = start(*world_.hosts[next_host++]);
        };
        constexpr uint64_t step_ticks = 10;
        while (result && next_host < starts.size()) {
            start_due_hosts();
            if (next_host < starts.size()) world_.sim->run_for(step_ticks);
            take_samples();
        }
        if (!result) return result;
        observe("power-on", 0, 300);
        return {};
    }

    ats::result<> start(world::host& host)
    {
        // Bring the link up first: after a power failure, the subnet manager activates a port before the service
        // starts.
        if (ats::result<> up = world_.subnet.link_up(host.name(), host.plan().hcas[0].name, 1); !up) return up;
        if (ats::result<> result = host.load(); !result) return result;
        const std::string command = "sa_verify_period " + std::to_string(static_cast<int>(settings_["period"])) + " " +
                                    std::to_string(static_cast<int>(settings_["skew"]));
        host.machine().get<stack::link_up_spread>().ticks =
            static_cast<uint64_t>(settings_["spread"] * ticks_per_second);
        host.machine().enter("settings", [&] { host.machine().proc.write(console::control_file, command); });
        return {};
    }

    template <class act_t>
    void scenario(const std::string& name, uint64_t seconds, const act_t& act)
    {
        world_.sim->run_until((now_second() + 1) * ticks_per_second);
        restart_queue();
        const uint64_t begin = now_second();
        act();
        observe(name, begin, seconds);
    }

    void restart_queue() { world_.subnet.set_sa_limits(limits_of(settings_)); }

    // Runs the scenario until `seconds` seconds after the second `begin`, and prints its figures.
    void observe(const std::string& name, uint64_t begin, uint64_t seconds)
    {
        while (now_second() < begin + seconds) {
            if (name == "silence") {
                if (now_second() == begin) ask_from_every_host();
                world_.subnet.faults.sa_silent = now_second() < begin + silent_seconds;
            }
            if (name == "flapping-rack") flap(now_second() - begin);
            start_probe();
            world_.sim->run_for(ticks_per_second / 2);
            take_samples();
            world_.sim->run_for(ticks_per_second / 2);
        }
        for (exec::task* asker : askers_) world_.sim->join(*asker);
        askers_.clear();
        print(name, begin, seconds);
    }

    void ask_from_every_host()
    {
        for (const auto& host : world_.hosts)
            askers_.push_back(&host->machine().start("asker", [&] {
                world::resolve_address(host->machine(), *world::parse_ipv4("10.0.0.1"), world::lookup_mode::sa_only);
            }));
    }

    void flap(uint64_t moment)
    {
        if (moment >= flap_seconds || moment % (flap_period_seconds / 2) != 0) return;
        const bool is_up = moment % flap_period_seconds != 0;
        for (size_t i = 0; i < std::min(rack_hosts, world_.hosts.size()); ++i) {
            const world::host& host = *world_.hosts[i];
            const std::string& hca = host.plan().hcas[0].name;
            const auto result =
                is_up ? world_.subnet.link_up(host.name(), hca, 1) : world_.subnet.link_down(host.name(), hca, 1);
            if (!result) throw std::runtime_error(result.error().text);
        }
    }

    // Makes a random host ask the SA for the GID of a random host's address.
    void start_probe()
    {
        kernel::machine& asker = world_.hosts[dice_() % world_.hosts.size()]->machine();
        const int target = static_cast<int>(dice_() % world_.hosts.size()) + 1;
        probes_.push_back(std::make_unique<probe>(probe{.begin_tick = world_.sim->now()}));
        probe& probe = *probes_.back();
        probe.task = &asker.start("probe", [&probe, &asker, target] {
            const auto address = world::parse_ipv4(bench_world::address_of(target));
            probe.is_found =
                world::resolve_address(asker, *address, world::lookup_mode::sa_only).status == ibat_stat_ok;
        });
    }

    // Sets the entry of records_ for the current second to the number of records at the SA.
    void take_samples()
    {
        records_.resize(now_second() + 1);
        records_.back() = world_.subnet.record_count();
    }

    void print(const std::string& name, uint64_t begin, uint64_t seconds)
    {
        counter_.by_second.resize(std::max<size_t>(counter_.by_second.size(), begin + seconds));
        // After registration_seconds, the SA has all records until the end of the scenario. From the second
        // success_begin on, all lookups succeed.
        uint64_t registration_seconds = 0, success_begin = begin;
        for (uint64_t moment = begin; moment < begin + seconds; ++moment)
            if (records_[moment] < world_.hosts.size()) registration_seconds = moment + 1 - begin;
        std::string lookups;
        for (const auto& probe : probes_) {
            world_.sim->join(*probe->task);
            lookups += lookups.empty() ? "" : ",";
            lookups += probe->is_found ? "1" : "0";
            if (!probe->is_found) success_begin = probe->begin_tick / ticks_per_second + 1;
        }
        probes_.clear();
        const embedded::sa_queue_counts queue = world_.subnet.sa_queue_counts();
        std::printf("{\"scenario\":\"%s\",\"hosts\":%zu,\"period\":%.0f,\"skew\":%.0f,"
                    "\"spread\":%.0f,\"start_spread\":%.0f,\"all_registered_s\":%llu,\"lookups_work_s\":%llu,\"longest_"
                    "queue\":%zu,"
                    "\"dropped\":%llu,\"requests\":[",
                    name.c_str(), world_.hosts.size(), settings_["period"], settings_["skew"], settings_["spread"],
                    settings_["start-spread"], static_cast<unsigned long long>(registration_seconds),
                    static_cast<unsigned long long>(success_begin - begin), queue.longest,
                    static_cast<unsigned long long>(queue.dropped));
        print_series(counter_.by_second, begin, seconds);
        std::printf("],\"records\":[");
        print_series(records_, begin, seconds);
        std::printf("],\"lookups\":[%s]}\n", lookups.c_str());
        std::fflush(stdout);
    }

    static void print_series(const std::vector<uint64_t>& series, uint64_t begin, uint64_t seconds)
    {
        for (uint64_t moment = begin; moment < begin + seconds; ++moment)
            std::printf("%s%llu", moment > begin ? "," : "", static_cast<unsigned long long>(series[moment]));
    }

    bench_world world_;
    const load_settings settings_;
    request_counter counter_;
    std::vector<uint64_t> records_; // the number of records at the SA, second by second
    std::vector<std::unique_ptr<probe>> probes_;
    std::vector<exec::task*> askers_;
    std::mt19937_64 dice_{1};
};

} // namespace

int fabric_load(int hosts, const std::vector<std::string>& settings)
{
    const exec::reserve last_memory;
    fabric_under_load fabric(hosts, read_settings(settings));
    if (const ats::result<> result = fabric.run(); !result) return give_up(fabric.world(), result.error());
    return 0;
}
