// ats-figures: measures figures of docs/report.md and docs/scale.md. `scripts/report` and `scripts/scale-report` run it
// and draw the figures. The first argument selects a figure. Most figures are printed as JSON objects. 'subnet' prints
// the figures of a whole subnet beside their limits, for `make bench`. 'resolutions' and the single steps, such as
// 'encode', print nothing: scripts count their instructions with Valgrind.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <unistd.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#endif

#include "bench/bench-world.h"
#include "bench/figures/fabric-load.h"
#include "bench/figures/long-trace.h"
#include "bench/figures/process-usage.h"
#include "bench/figures/whole-subnet.h"
#include "bench/sa-lookups.h"
#include "host/exec/shortage.h"
#include "host/world/module-folder.h"
#include "host/world/resolution.h"
#include "host/world/text.h"
#include "ib-code/ats/ats-sa.h"

std::atomic<int32_t> ATS_trace_level;
std::atomic<int32_t> logger_trace_level;

namespace
{

constexpr uint64_t second = 1000; // in ticks

// Counts the requests to the SA, second by second.
class load_meter final : public fabric::tap
{
  public:
    explicit load_meter(embedded::subnet& net) : net_(net) { net_.set_tap(this); }
    ~load_meter() { net_.set_tap(nullptr); }

    void crossed(uint64_t now_ticks, uint16_t, const fabric::address&, const fabric::mad_bytes& mad) override
    {
        if (!(mad[3] & MAD_METHOD_RESPONSE)) ++by_second_[now_ticks / second];
    }

    struct load {
        double mean;
        uint64_t peak;
        std::string series; // "[0,3,...]"
    };
    load load_of(uint64_t begin_second, uint64_t end_second) const
    {
        load result{0, 0, "["};
        for (uint64_t moment = begin_second; moment < end_second; ++moment) {
            const auto entry = by_second_.find(moment);
            const uint64_t count = entry == by_second_.end() ? 0 : entry->second;
            result.mean += static_cast<double>(count) / static_cast<double>(end_second - begin_second);
            result.peak = std::max(result.peak, count);
            result.series += (moment > begin_second ? "," : "") + std::to_string(count);
        }
        result.series += "]";
        return result;
    }

  private:
    embedded::subnet& net_;
    std::map<uint64_t, uint64_t> by_second_;
};

void show_load(const char* name, const load_meter::load& load)
{
    std::printf("\"%s\":{\"mean\":%.2f,\"peak\":%llu,\"series\":%s}", name, load.mean,
                static_cast<unsigned long long>(load.peak), load.series.c_str());
}

// Measures the load of `hosts` hosts on the SA, and their memory. The hosts start together; their first registrations
// are not in the figures. After an hour, the SM moves to another LID and the SA loses all records, several times. Then
// the SA does not answer for two minutes, and every host looks up an address.
int scale(int hosts)
{
    const exec::reserve last_memory;
    const double bytes_at_start = memory_bytes();
    bench_world world(hosts);
    if (const ats::result<> result = world.bring_up(); !result) return give_up(world, result.error());
    const double bytes_per_host = (memory_bytes() - bytes_at_start) / hosts;
    load_meter meter(world.subnet);
    const auto seconds_now = [&] { return world.sim->now() / second; };

    world.sim->run_until(600 * second);
    const load_meter::load start_load = meter.load_of(0, seconds_now());
    world.sim->run_until(3600 * second);
    const load_meter::load steady_load = meter.load_of(3000, seconds_now());

    // Restart the SM six times, each time at another moment between two checks of a host. The time until all hosts are
    // registered again depends on that moment.
    uint64_t restart = 0, longest_ticks = 0, sum_ticks = 0;
    constexpr int restarts = 6;
    for (int i = 0; i < restarts; ++i) {
        world.sim->run_for(130 * second);
        restart = seconds_now();
        world.subnet.forget_all();
        if (!world.subnet.set_sm(static_cast<uint16_t>(40000 + i), 0)) return 1;
        while (world.subnet.service_records().size() < static_cast<size_t>(hosts)) world.sim->run_for(100);
        longest_ticks = std::max(longest_ticks, world.sim->now() - restart * second);
        sum_ticks += world.sim->now() - restart * second;
    }
    world.sim->run_until((restart + 120) * second);
    const load_meter::load restart_load = meter.load_of(restart, restart + 120);

    world.sim->run_until((restart + 200) * second);
    world.subnet.faults.sa_silent = true;
    std::vector<exec::task*> askers;
    std::optional<ats::error> shortage; // set if the memory is not enough for all askers
    for (const auto& host : world.hosts) {
        try {
            askers.push_back(&host->machine().start("asker", [&] {
                world::resolve_address(host->machine(), *world::parse_ipv4("10.0.0.1"), world::lookup_mode::sa_only);
            }));
        } catch (const exec::shortage& error) {
            shortage = {ats::error_kind::no_memory, error.what()};
            break;
        }
    }
    world.sim->run_for(120 * second);
    world.subnet.faults.sa_silent = false;
    world.sim->run_for(120 * second);
    for (exec::task* each : askers) world.sim->join(*each);
    if (shortage) return give_up(world, *shortage);
    const load_meter::load silence_load = meter.load_of(restart + 200, restart + 440);

    std::printf("{\"hosts\":%d,\"kib_per_host\":%.1f,\"module_bytes\":%zu,\"converged_mean_s\":%.1f,"
                "\"converged_longest_s\":%.1f,",
                hosts, bytes_per_host / 1024, world.hosts[0]->machine().memory.bytes(),
                static_cast<double>(sum_ticks) / restarts / second, static_cast<double>(longest_ticks) / second);
    show_load("first", start_load);
    std::printf(",");
    show_load("steady", steady_load);
    std::printf(",");
    show_load("restart", restart_load);
    std::printf(",");
    show_load("silence", silence_load);
    std::printf("}\n");
    return 0;
}

// Measures `count` lookups at the SA, with real threads and in real time.
int lookups(int count)
{
    const auto exec = exec::make_threaded_executor();
    embedded::subnet net(*exec);
    const world::host_plan plan = console::usual_host("node1", "10.0.0.1");
    world::host host(*exec, world::add_hcas(net, plan).value(), plan, world::default_module_folder(), 1);
    if (!host.load() || !net.link_up("node1", "mthca0", 1)) return 1;
    while (net.service_records().empty()) usleep(1000);
    std::vector<uint64_t> durations_ns;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
        const world::resolution answer =
            world::resolve_address(host.machine(), *world::parse_ipv4("10.0.0.1"), world::lookup_mode::sa_only);
        if (answer.status == ibat_stat_ok) durations_ns.push_back(answer.duration_nanoseconds);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::ranges::sort(durations_ns);
    std::printf("{\"lookups\":%zu,\"per_second\":%.0f,\"percentiles_us\":[", durations_ns.size(), count / seconds);
    for (int percent = 1; percent <= 100; ++percent)
        std::printf("%s%.1f", percent > 1 ? "," : "",
                    static_cast<double>(durations_ns[(durations_ns.size() - 1) * static_cast<size_t>(percent) / 100]) /
                        1000);
    std::printf("]}\n");
    return 0;
}

// Repeats one step `count` times. `scripts/report` counts the instructions of two runs with different counts, and
// calculates the cost of one step from the difference.
int repeat(const std::string& step, int count)
{
    if (step == "encode" || step == "decode") {
        static ats_context_t context{};
        static gsi_dtgrm_t datagram{};
        context.ib_ports[0].ats_context = &context;
        for (int i = 0; i < (step == "encode" ? count : 1); ++i)
            ats_sa_encode_mad(&datagram, &context, &context.ib_ports[0], ATS_SET_SR_OP, nullptr, 1, 0, 0);
        for (int i = 0; i < (step == "decode" ? count : 0); ++i)
            ats_sa_gsi_decode_recv_dtgrm(&context.ib_ports[0], &datagram);
        return 0;
    }
    bench_world world(2);
    fabric::hca& stranger = *world.subnet.add_hca("stranger", "mthca0", 1).value();
    if (!world.bring_up() || !world.subnet.link_up("stranger", "mthca0", 1)) return 1;
    kernel::machine& host = world.hosts[0]->machine();
    const uint32_t other = *world::parse_ipv4("10.0.0.2");
    fabric::mad_bytes answer{1, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, MAD_METHOD_GET | MAD_METHOD_RESPONSE};
    answer[17] = SA_ATTR_SERVICE_RECORD;
    answer[64] = answer[183] = 1; // the first byte of the ServiceGID, and the last byte of ServiceData8
    world.subnet.faults.sa_silent = step == "send";
    for (int i = 0; i < count; ++i) {
        if (step == "receive") {
            stranger.send(1, {.lid = 2}, answer);
            world.sim->settle();
        } else if (step == "send") { // the command sends one request, and the silent SA does not answer it
            host.enter("writer", [&] { host.proc.write(console::control_file, "delete_ip 10.0.0.1"); });
            world.sim->settle();
        } else if (world::resolve_address(host, other, world::lookup_mode::sa_only).status != ibat_stat_ok) {
            std::fprintf(stderr, "lookup %d failed\n", i);
            return 1;
        }
    }
    return 0;
}

// Makes one host look up the addresses of all others in turn, like resolve() in bench/resolution-bench.cpp. The host
// makes these lookups twice. The first time fills caches and pools. Callgrind counts only the second time.
int resolutions(int count, int hosts)
{
    bench_world world(hosts);
    if (const ats::result<> result = world.bring_up(); !result) return give_up(world, result.error());
    kernel::machine& host = world.hosts[0]->machine();
    std::vector<uint32_t> addresses;
    for (int i = 2; i <= hosts; ++i) addresses.push_back(*world::parse_ipv4(bench_world::address_of(i)));
    uint64_t right_answers = 0;
    host.enter("asker", [&] {
        for (const bool is_counted : {false, true}) {
            sa_lookups lookups(host);
            if (is_counted) CALLGRIND_START_INSTRUMENTATION;
            for (int i = 0; i < count; ++i) lookups.send(addresses[static_cast<size_t>(i) % addresses.size()]);
            lookups.wait_for_all();
            CALLGRIND_STOP_INSTRUMENTATION;
            right_answers += lookups.right_answers;
        }
    });
    return right_answers == 2 * static_cast<uint64_t>(count) ? 0 : 1;
}

int run(int argc, char** argv)
{
    const std::string figure = argc > 1 ? argv[1] : "";
    const int count = argc > 2 ? std::atoi(argv[2]) : 0, hosts = argc > 3 ? std::atoi(argv[3]) : 10;
    if (figure == "scale" && count > 0) return scale(count);
    if (figure == "subnet" && count > 0) return whole_subnet(count);
    if (figure == "load" && count > 0) return fabric_load(count, {argv + 3, argv + argc});
    if (figure == "trace" && count > 0) return long_trace(count);
    if (figure == "lookups" && count > 0) return lookups(count);
    if (figure == "resolutions" && count > 0 && hosts > 1) return resolutions(count, hosts);
    for (const char* step : {"encode", "decode", "send", "receive", "resolve"})
        if (figure == step && count > 0) return repeat(figure, count);
    std::fprintf(stderr, "usage: ats-figures scale|subnet HOSTS | load HOSTS [SETTING=VALUE...] | trace DAYS | "
                         "lookups COUNT | resolutions COUNT [HOSTS] | encode|decode|send|receive|resolve COUNT\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fputs("ats-figures: the memory is used up: run fewer hosts\n", stderr);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "ats-figures: %s\n", exception.what());
    }
    return 1;
}
