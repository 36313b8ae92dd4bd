#include "bench/figures/long-trace.h"

#include <algorithm>
#include <cstdio>
#include <malloc.h>

#include "bench/bench-world.h"
#include "console/log-filter.h"
#include "host/world/module-folder.h"

namespace
{

constexpr uint64_t day_ticks = 86'400'000;
constexpr int first_days = 3; // after this time, the log has its full size
constexpr size_t growth_limit_bytes = size_t{64} << 10;

size_t heap_bytes()
{
    return mallinfo2().uordblks;
}

} // namespace

// The host checks its record at the SA once a minute, and traces every step of the check.
int long_trace(int days)
{
    const auto sim = exec::make_simulation();
    embedded::subnet subnet(*sim);
    const world::host_plan plan = console::usual_host("node1", "10.0.0.1", console::trace_level_everything);
    world::host host(*sim, world::add_hcas(subnet, plan).value(), plan, world::default_module_folder(), 1);
    if (!host.load() || !subnet.link_up("node1", plan.hcas[0].name, 1)) return 1;
    sim->run_until(first_days * day_ticks);
    const size_t first = heap_bytes();
    size_t largest = first;
    for (int day = first_days + 1; day <= days; ++day) {
        sim->run_until(static_cast<uint64_t>(day) * day_ticks);
        largest = std::max(largest, heap_bytes());
    }
    uint64_t next = 0, dropped = 0;
    host.machine().log.lines_from(0, 1, &next, &dropped);
    std::printf("{\"days\":%d,\"dropped_log_lines\":%llu,\"first_heap_bytes\":%zu,\"largest_heap_bytes\":%zu}\n", days,
                static_cast<unsigned long long>(dropped), first, largest);
    return largest > first + growth_limit_bytes ? 1 : 0;
}
