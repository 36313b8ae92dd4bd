// Measures a complete resolution: the call of IBAT, the request to the SA, the SA's answer and the callback.
#include <benchmark/benchmark.h>

#include "bench/bench-world.h"
#include "bench/sa-lookups.h"
#include "host/peers/ucm-exports.h"
#include "host/world/text.h"

namespace
{

void resolve(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    bench_world world(count);
    if (const ats::result<> result = world.bring_up(); !result) return state.SkipWithError(result.error().text.c_str());
    std::vector<uint32_t> addresses;
    for (int i = 2; i <= count; ++i) addresses.push_back(*world::parse_ipv4(bench_world::address_of(i)));

    kernel::machine& asker = world.hosts[0]->machine();
    asker.enter("bench", [&] {
        sa_lookups lookups(asker);
        size_t next = 0;
        for (auto _ : state) {
            lookups.send(addresses[next]);
            next = next + 1 < addresses.size() ? next + 1 : 0;
        }
        lookups.wait_for_all();
        if (lookups.right_answers != static_cast<uint64_t>(state.iterations())) state.SkipWithError("a wrong answer");
    });
    state.SetItemsProcessed(state.iterations());
    if (count == 10) state.SetLabel("limit 333 ns");
}
BENCHMARK(resolve)->ArgName("hosts")->Arg(10)->Arg(100)->Arg(1000)->UseRealTime();

// Measures a lookup while many reverse requests (for the addresses of other GIDs) are pending. The module compares the
// answer with each pending request while it holds its lock.
void match_among_pending(benchmark::State& state)
{
    bench_world world(2);
    if (const ats::result<> result = world.bring_up(); !result) return state.SkipWithError(result.error().text.c_str());
    kernel::machine& asker = world.hosts[0]->machine();
    const kq_gid_t port_gid = *world::parse_gid(world.subnet.ports()[1].gid);
    // The next requests stay pending, because the fabric drops their answers.
    world.subnet.faults.drop_next_answers = static_cast<uint32_t>(state.range(0));
    uint64_t answers = 0;
    asker.enter("bench", [&] {
        const world::published<ucm_get_ip_fn_t> get(asker, "ucm_get_ip_fn");
        const auto count_answer = [](ibat_stat_t, ibat_arp_data_t*, void* answers) {
            ++*static_cast<uint64_t*>(answers);
        };
        ibat_arp_data_t record{};
        for (int64_t i = 1; i <= state.range(0); ++i) {
            const kq_gid_t unknown_gid{.eui64 = static_cast<uint64_t>(i), .subnet = port_gid.subnet};
            (*get)(&unknown_gid, &record, count_answer, &answers);
            asker.exec().park(asker.exec().now(), "datagrams", "bench"); // lets the datagrams return to the pool
        }
    });
    asker.enter("bench", [&] {
        sa_lookups lookups(asker);
        const uint32_t ip = *world::parse_ipv4(bench_world::address_of(2));
        for (auto _ : state) {
            lookups.send(ip);
            lookups.wait_for_all();
            for (int i = 0; i < sa_lookups::window; ++i) up(&lookups.free_slots);
        }
        if (lookups.right_answers != static_cast<uint64_t>(state.iterations())) state.SkipWithError("a wrong answer");
    });
    if (answers != 0) state.SkipWithError("a pending request was answered");
    if (state.range(0) == 10000) state.SetLabel("limit 10000 ns");
}
BENCHMARK(match_among_pending)->ArgName("pending")->Arg(0)->Arg(1000)->Arg(10000)->UseRealTime();

} // namespace
