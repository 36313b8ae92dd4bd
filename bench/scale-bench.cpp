// Measures the start, the registration and the unloading of a thousand hosts in one process.
#include <benchmark/benchmark.h>
#include <chrono>
#include <fstream>
#include <unistd.h>

#include "bench/bench-world.h"

namespace
{

double resident_bytes()
{
    size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void hosts_come_and_go(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        const double bytes_at_start = resident_bytes();
        const auto begin = std::chrono::steady_clock::now();
        bench_world world(count);
        if (const ats::result<> result = world.bring_up(); !result)
            return state.SkipWithError(result.error().text.c_str());
        state.counters["up_s"] = seconds_since(begin);
        state.counters["registered"] = static_cast<double>(world.subnet.service_records().size());
        state.counters["KiB_per_host"] = (resident_bytes() - bytes_at_start) / 1024 / count;

        const auto unload_begin = std::chrono::steady_clock::now();
        for (const auto& host : world.hosts)
            if (const ats::result<> result = host->unload(); !result)
                return state.SkipWithError(result.error().text.c_str());
        state.counters["down_s"] = seconds_since(unload_begin);
        state.counters["left"] = static_cast<double>(world.subnet.service_records().size());
        const embedded::subnet_counts counts = world.subnet.counts();
        state.counters["requests_per_host"] = static_cast<double>(counts.sent) / count;
    }
}
BENCHMARK(hosts_come_and_go)->ArgName("hosts")->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
