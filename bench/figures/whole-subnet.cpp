#include "bench/figures/whole-subnet.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "bench/figures/process-usage.h"
#include "host/exec/shortage.h"
#include "host/world/resolution.h"
#include "host/world/text.h"

namespace
{

constexpr size_t few_hosts = 10;

// The limits apply to the largest subnet, which has 48000 hosts, on a machine with two cores and unchanged system
// settings.
constexpr double seconds_limit = 60; // processor time to bring all hosts up; the same limit applies to unloading them
constexpr double kib_per_host_limit = 100;
// The limit of two ratios of processor time. One compares the start of the last hosts with the start of the first
// hosts. The other compares a lookup by ten hosts of the large subnet with a lookup in a subnet of ten hosts.
constexpr double ratio_limit = 1.3;

void print_figure(const char* name, double figure, const char* unit, double limit)
{
    std::printf("%-48s %10.2f %-4s  limit %.6g%s\n", name, figure, unit, limit, figure > limit ? "  EXCEEDED" : "");
}

double mappings_limit()
{
    double limit = 0;
    std::ifstream("/proc/sys/vm/max_map_count") >> limit;
    return limit;
}

// Returns the processor time of a lookup at the SA, in microseconds. `askers` hosts from all over the subnet ask in
// turn, each for the GID of a host's address.
double lookup_microseconds(bench_world& world, size_t askers)
{
    constexpr size_t rounds = 20'000;
    const size_t hosts = world.hosts.size(), step = hosts / askers;
    double begin = 0;
    for (size_t i = 0; i < 2 * rounds; ++i) {
        if (i == rounds) begin = processor_seconds();  // only the second half counts; the first half fills the caches
        const size_t asker = i * 7919 % askers * step; // 7919 is a prime; consecutive askers are far apart in memory
        const uint32_t address =
            *world::parse_ipv4(bench_world::address_of(static_cast<int>((asker * 31 + i) % hosts) + 1));
        if (world::resolve_address(world.hosts[asker]->machine(), address, world::lookup_mode::sa_only).status !=
            ibat_stat_ok)
            throw std::runtime_error("a lookup failed");
    }
    return (processor_seconds() - begin) / rounds * 1e6;
}

double lookup_microseconds_of_few_hosts()
{
    bench_world world(few_hosts);
    if (const ats::result<> result = world.bring_up(); !result) throw std::runtime_error(result.error().text);
    return lookup_microseconds(world, few_hosts);
}

// The processor time to bring up the first tenth of the hosts, and the last tenth.
struct bring_up_seconds {
    double first = 0;
    double last = 0;
};

ats::result<bring_up_seconds> bring_up(bench_world& world)
{
    const size_t hosts = world.hosts.size(), tenth = std::max<size_t>(hosts / 10, 1);
    bring_up_seconds seconds;
    const double begin = processor_seconds();
    double last_begin = begin;
    for (size_t i = 0; i < hosts; ++i) {
        if (i == hosts - tenth) last_begin = processor_seconds();
        if (ats::result<> result = world.bring_up(*world.hosts[i]); !result) return ats::pass_on(result);
        if (i + 1 == tenth) seconds.first = processor_seconds() - begin;
    }
    world.sim->run_for(1);
    seconds.last = processor_seconds() - last_begin;
    return seconds;
}

} // namespace

int give_up(bench_world& world, const ats::error& error)
{
    std::fprintf(stderr, "%s\n", error.text.c_str());
    size_t loaded_hosts = 0;
    for (const auto& host : world.hosts) {
        loaded_hosts += !host->machine().modules.loaded().empty();
        if (const ats::result<> result = host->unload(); !result)
            std::fprintf(stderr, "%s: %s\n", host->name().c_str(), result.error().text.c_str());
    }
    std::fprintf(stderr, "%zu hosts were unloaded in good order, and left %zu records at the SA\n", loaded_hosts,
                 world.subnet.service_records().size());
    return 1;
}

int whole_subnet(int hosts)
{
    const exec::reserve last_memory;
    const double few_hosts_lookup = lookup_microseconds_of_few_hosts();
    const double bytes_at_start = memory_bytes(), begin = processor_seconds();
    bench_world world(hosts);
    const ats::result<bring_up_seconds> up = bring_up(world);
    if (!up) return give_up(world, up.error());
    const double up_seconds = processor_seconds() - begin;
    const size_t registered_hosts = world.subnet.service_records().size(), mappings = mapping_count();
    const double bytes_at_rest = memory_bytes() - bytes_at_start;
    const size_t askers = static_cast<size_t>(hosts);
    const double usual_lookup = lookup_microseconds(world, std::min(askers, few_hosts));
    const double scattered_lookup = lookup_microseconds(world, askers);
    const double bytes_after_lookups = memory_bytes() - bytes_at_start;

    const double unload_begin = processor_seconds();
    for (const auto& host : world.hosts)
        if (const ats::result<> result = host->unload(); !result) return give_up(world, result.error());
    const double unload_seconds = processor_seconds() - unload_begin;

    std::printf("%d hosts in one process; %zu have registered, and %zu records are left (processor time):\n", hosts,
                registered_hosts, world.subnet.service_records().size());
    print_figure("all hosts are up after", up_seconds, "s", seconds_limit);
    print_figure("all hosts are unloaded after", unload_seconds, "s", seconds_limit);
    print_figure("memory of a host at rest", bytes_at_rest / 1024 / hosts, "KiB", kib_per_host_limit);
    print_figure("memory of a host after the lookups", bytes_after_lookups / 1024 / hosts, "KiB", kib_per_host_limit);
    print_figure("memory mappings", static_cast<double>(mappings), "", mappings_limit());
    print_figure("start of the last hosts, to that of the first", up->last / up->first, "", ratio_limit);
    print_figure("lookup of ten hosts, to the same in a small subnet", usual_lookup / few_hosts_lookup, "",
                 ratio_limit);
    std::printf("%-48s %10.2f us    (%.2f us in a subnet of ten)\n", "lookup of hosts all over the subnet",
                scattered_lookup, few_hosts_lookup);
    return 0;
}
