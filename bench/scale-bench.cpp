// A thousand hosts in one process: bringing them up, registering them all, unloading them all.
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
        const double before = resident_bytes();
        const auto started = std::chrono::steady_clock::now();
        bench_world world(count);
        if (const std::string why = world.bring_up(); !why.empty()) return state.SkipWithError(why.c_str());
        state.counters["up_s"] = seconds_since(started);
        state.counters["registered"] = static_cast<double>(world.subnet.service_records().size());
        state.counters["KiB_per_host"] = (resident_bytes() - before) / 1024 / count;

        const auto unloading = std::chrono::steady_clock::now();
        for (const auto& host : world.hosts)
            if (const ats::result<> gone = host->unload(); !gone) return state.SkipWithError(gone.error().text.c_str());
        state.counters["down_s"] = seconds_since(unloading);
        state.counters["left"] = static_cast<double>(world.subnet.service_records().size());
        const embedded::subnet_counts counts = world.subnet.counts();
        state.counters["requests_per_host"] = static_cast<double>(counts.sent) / count;
    }
}
BENCHMARK(hosts_come_and_go)->ArgName("hosts")->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
