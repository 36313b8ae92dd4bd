// Counts the allocations of this process while a host resolves addresses. The test program defines malloc, calloc and
// realloc itself. Its libraries and modules then call these functions instead of those of the C library.
#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>

#include "console/host-plans.h"
#include "host/exec/sanitizers.h"
#include "host/peers/ibat-exports.h"
#include "host/world/published.h"
#include "tests/ats/ats-world.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // these sanitizers have a malloc of their own

namespace
{

std::atomic<uint64_t> allocation_count{0};

} // namespace

#define OWN_CALL extern "C" __attribute__((visibility("default")))

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);

OWN_CALL void* malloc(size_t size) noexcept
{
    ++allocation_count;
    return __libc_malloc(size);
}

OWN_CALL void* calloc(size_t count, size_t size) noexcept
{
    ++allocation_count;
    return __libc_calloc(count, size);
}

OWN_CALL void* realloc(void* memory, size_t size) noexcept
{
    ++allocation_count;
    return __libc_realloc(memory, size);
}

namespace
{

struct questions {
    static void take_answer(ibat_stat_t status, ibat_arp_data_t*, void* context)
    {
        auto& self = *static_cast<questions*>(context);
        self.answer_count += status == ibat_stat_ok;
        up(&self.answers);
    }

    // Asks the SA for the GIDs of both addresses at once, and waits for both answers. Repeats this `times` times.
    void ask(const world::published<ibat_refresh_fn_t>& refresh, int times)
    {
        for (int i = 0; i < times; ++i) {
            for (const uint32_t address : {ip_of("10.0.0.1"), ip_of("10.0.0.2")})
                EXPECT_EQ((*refresh)(address, take_answer, this), ibat_stat_pending);
            for (int answer = 0; answer < 2; ++answer) down(&answers);
        }
    }

    semaphore answers; // raised by each answer
    std::atomic<int> answer_count{0};
};

// Resolves addresses in several rounds. Returns the number of allocations in the round with the fewest. Queues may
// still grow in the first rounds. With real threads, queues may also grow later.
uint64_t fewest_allocations(exec::executor& exec, const std::function<void()>& let_time_pass)
{
    embedded::subnet subnet(exec);
    std::vector<std::unique_ptr<world::host>> hosts;
    for (const char* address : {"10.0.0.1", "10.0.0.2"}) {
        const std::string name = "node" + std::to_string(hosts.size() + 1);
        const world::host_plan plan = console::usual_host(name, address);
        hosts.push_back(std::make_unique<world::host>(exec, world::add_hcas(subnet, plan).value(), plan,
                                                      world::default_module_folder(), hosts.size() + 1));
        EXPECT_TRUE(hosts.back()->load());
        EXPECT_TRUE(subnet.link_up(name, "mthca0", 1));
    }
    while (subnet.service_records().size() < hosts.size()) let_time_pass();

    constexpr int rounds = 20;
    uint64_t count = UINT64_MAX;
    kernel::machine& asker = hosts[0]->machine();
    asker.enter("asker", [&] {
        const world::published<ibat_refresh_fn_t> refresh(asker, "ibat_refresh_fn");
        questions questions;
        sema_init(&questions.answers, 0);
        for (int round = 0; round < rounds; ++round) {
            const uint64_t count_before = allocation_count;
            questions.ask(refresh, 100);
            count = std::min(count, allocation_count - count_before);
        }
        EXPECT_EQ(questions.answer_count, rounds * 200);
    });
    for (const auto& host : hosts) EXPECT_TRUE(host->unload());
    return count;
}

TEST(a_resolution, allocates_nothing_once_it_has_run_before)
{
    const auto simulation = exec::make_simulation();
    EXPECT_EQ(fewest_allocations(*simulation, [&] { simulation->run_for(1); }), 0u);
    const auto threads = exec::make_threaded_executor();
    EXPECT_EQ(fewest_allocations(*threads, [&] { threads->relax(); }), 0u);
}

} // namespace

#endif
