// A host with the real modules ibat, ucm and ats asks for paths. Tests the requests to the SA, IBAT's cache, and the
// events that drop a path from the cache.
#include <gtest/gtest.h>

#include "host/exec/schedule.h"
#include "host/fabric/embedded/subnet.h"
#include "host/peers/ibat-exports.h"
#include "host/peers/ibat-path-exports.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"
#include "host/world/path-resolution.h"
#include "host/world/published.h"
#include "host/world/text.h"

namespace
{

using world::lookup_mode;
using world::path_resolution;
using world::path_status;

struct path_world {
    // The asking host has two ports, the other host one. If `order` is null, tasks run in the plain order.
    explicit path_world(exec::schedule* order = nullptr) : sim(exec::make_simulation({.order = order}))
    {
        for (world::host* each : {&asker, &other}) EXPECT_TRUE(each->load());
        EXPECT_TRUE(subnet.link_up("node1", "mthca0", 1));
        EXPECT_TRUE(subnet.link_up("node2", "mthca0", 1));
        pass(10);
    }

    world::host_plan plan_of(const std::string& name, const std::string& address, int ports)
    {
        return {
            .name = name,
            .hcas = {{.ports = ports}},
            .modules = {{"ibat", ""}, {"ucm", ""}, {"ats", "ats_ipaddr_str=" + address + " ats_hostName_str=" + name}}};
    }
    std::vector<fabric::hca*> hcas_of(const world::host_plan& plan) { return world::add_hcas(subnet, plan).value(); }

    void pass(uint64_t ticks) { sim->run_until(sim->now() + ticks); }
    path_resolution find(const world::path_destination& destination, lookup_mode mode = lookup_mode::usual,
                         uint64_t timeout_ticks = world::no_path_timeout)
    {
        return world::resolve_path(asker.machine(), destination, mode, timeout_ticks);
    }
    ibat_path_counters_t counters()
    {
        ibat_path_counters_t counters{};
        const world::published<ibat_path_counters_fn_t> read(asker.machine(), "ibat_path_counters_fn");
        asker.machine().enter("test", [&] { (*read)(&counters); });
        return counters;
    }
    fabric::port_attributes port(const char* host, int number)
    {
        return subnet.find(host, "mthca0").value()->read_port(number);
    }
    // The path must lead from this port of node1 to the port of node2.
    void expect_right(const path_resolution& answer, int port_number, bool from_cache)
    {
        const fabric::port_attributes source = port("node1", port_number), destination = port("node2", 1);
        EXPECT_EQ(answer.status, path_status::found) << answer.reason;
        EXPECT_EQ(answer.path.dlid, destination.lid);
        EXPECT_EQ(answer.path.slid, source.lid);
        EXPECT_EQ(to_wire(answer.path.dgid).bytes[15], destination.gids[0][15]);
        EXPECT_EQ(answer.path.dgid, answer.gid);
        EXPECT_EQ(std::bit_cast<fabric::gid_bytes>(to_wire(answer.path.sgid)), source.gids[0]);
        EXPECT_EQ(answer.path.p_key, 0xFFFF);
        EXPECT_EQ(answer.path.mtu, 4);
        EXPECT_TRUE(answer.path.is_reversible);
        EXPECT_EQ(answer.port, static_cast<uint32_t>(port_number));
        EXPECT_EQ(answer.from_cache, from_cache);
    }

    std::unique_ptr<exec::simulation> sim;
    embedded::subnet subnet{*sim};
    const world::host_plan asker_plan = plan_of("node1", "10.0.0.1", 2), other_plan = plan_of("node2", "10.0.0.2", 1);
    world::host asker{*sim, hcas_of(asker_plan), asker_plan, world::default_module_folder(), 7};
    world::host other{*sim, hcas_of(other_plan), other_plan, world::default_module_folder(), 7};
    const uint32_t address = world::parse_ipv4("10.0.0.2").value();
    const kq_gid_t gid = world::parse_gid("fe80::200:0:2:1").value();
};

struct paths : testing::Test, path_world {
};

TEST_F(paths, are_asked_for_once_and_cached_until_they_expire)
{
    EXPECT_EQ(find(address, lookup_mode::cache_only).status, path_status::not_cached);
    subnet.faults.latency_ticks = 5;
    int found = 0;
    for (int i = 0; i < 20; ++i)
        world::start_path_resolution(asker.machine(), gid, lookup_mode::usual, [&](const path_resolution& answer) {
            found += answer.status == path_status::found;
        });
    pass(2);
    EXPECT_EQ(counters().pending, 1u);
    pass(18);
    EXPECT_EQ(found, 20);
    EXPECT_EQ(counters().requests, 1u) << "all questions share one request";
    EXPECT_EQ(counters().pending, 0u);
    EXPECT_EQ(counters().entries, 1u);

    expect_right(find(gid), 1, true);
    expect_right(find(address), 1, false); // the path is in the cache, but the address is not
    expect_right(find(address), 1, true);
    expect_right(find(gid, lookup_mode::sa_only), 1, false);
    EXPECT_EQ(counters().requests, 2u);
    asker.machine().enter("test", [&] {
        const world::published<ibat_forget_fn_t> forget(asker.machine(), "ibat_forget_fn");
        for (int i = 0; i < 2; ++i) (*forget)(0, &gid);
    });
    EXPECT_EQ(counters().drops, 1u);
    expect_right(find(gid), 1, false);
    pass(301'000);
    EXPECT_EQ(find(gid, lookup_mode::cache_only).status, path_status::not_cached);
    EXPECT_TRUE(asker.unload());
}

TEST_F(paths, are_asked_for_again_when_the_sa_is_slow_busy_or_silent_and_given_up_in_time)
{
    using counter_t = uint64_t ibat_path_counters_t::*;
    const struct {
        const char* name;
        std::function<void(embedded::fault_switches&)> fault;
        path_status status;
        uint64_t ticks;
        counter_t counter; // must have counted the fault
    } rows[] = {
        {"lost", [](auto& faults) { faults.drop_next = 1; }, path_status::found, 500, &ibat_path_counters_t::retries},
        {"busy", [](auto& faults) { faults.answer_with(MAD_STATUS_BUSY, 2); }, path_status::found, 1000,
         &ibat_path_counters_t::errors},
        {"late", [](auto& faults) { faults.sa_service_ticks = 600; }, path_status::timed_out, 1500,
         &ibat_path_counters_t::strays},
        {"twice", [](auto& faults) { faults.duplicate_percent = 100; }, path_status::found, 0,
         &ibat_path_counters_t::strays},
        {"silent", [](auto& faults) { faults.sa_silent = true; }, path_status::timed_out, 1500,
         &ibat_path_counters_t::timeouts},
        {"refused", [](auto& faults) { faults.answer_with(0x0600); }, path_status::failed, 0,
         &ibat_path_counters_t::errors},
        {"no_such_path", [](auto& faults) { faults.answer_with(0x0300); }, path_status::not_found, 0,
         &ibat_path_counters_t::absences},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const uint64_t before = counters().*row.counter;
        row.fault(subnet.faults);
        const path_resolution answer = find(gid, lookup_mode::sa_only);
        EXPECT_EQ(answer.status, row.status);
        EXPECT_EQ(answer.duration_ticks, row.ticks);
        EXPECT_EQ(answer.reason.empty(), row.status == path_status::found);
        pass(2000);
        EXPECT_GT(counters().*row.counter, before);
        subnet.faults.sa_silent = false;
        subnet.faults.sa_service_ticks = 0;
        subnet.faults.duplicate_percent = 0;
        subnet.faults.answer_with(0, 0);
    }
    subnet.faults.sa_silent = true;
    const path_resolution impatient = find(gid, lookup_mode::sa_only, 70);
    EXPECT_EQ(impatient.status, path_status::timed_out);
    pass(2000); // until the request ends; its question has already ended
    EXPECT_TRUE(asker.unload());
}

// In some orders, the answer arrives before the task that sends the request has returned from the send.
TEST(paths_in_every_order, wait_for_the_usual_time_after_a_busy_answer)
{
    exec::systematic_schedule order(1);
    do {
        SCOPED_TRACE(order.describe());
        path_world world(&order);
        path_resolution result;
        world.subnet.faults.answer_with(MAD_STATUS_BUSY, 1);
        order.explore(true);
        world::start_path_resolution(world.asker.machine(), world.gid, lookup_mode::sa_only,
                                     [&](const path_resolution& answer) { result = answer; });
        world.pass(1);
        order.explore(false);
        world.pass(1000);
        EXPECT_EQ(result.status, path_status::found);
        EXPECT_EQ(result.duration_ticks, 500u);
        EXPECT_TRUE(world.asker.unload());
    } while (!HasFailure() && order.next());
}

TEST_F(paths, are_dropped_when_an_event_makes_them_invalid)
{
    expect_right(find(address), 1, false);
    EXPECT_TRUE(subnet.link_up("node1", "mthca0", 1)); // repeats the present state
    EXPECT_TRUE(subnet.link_up("node1", "mthca0", 2)); // port 2 is not in use
    pass(10);
    expect_right(find(address), 1, true);

    const uint64_t drops = counters().drops;
    EXPECT_TRUE(subnet.set_sm(900, 0));
    pass(10);
    EXPECT_EQ(counters().drops, drops + 1);
    expect_right(find(address), 1, false);

    // A request is in flight when its port goes down. IBAT repeats it at once through the other port.
    subnet.faults.sa_silent = true;
    path_resolution late;
    world::start_path_resolution(asker.machine(), gid, lookup_mode::sa_only,
                                 [&](const auto& answer) { late = answer; });
    pass(3);
    subnet.faults.sa_silent = false;
    EXPECT_TRUE(subnet.link_down("node1", "mthca0", 1));
    pass(100);
    expect_right(late, 2, false);
    EXPECT_LT(late.duration_ticks, 100u);
    expect_right(find(gid), 2, true);

    // Port 1 comes back. Port 2 stays the active port, and new paths begin there.
    EXPECT_TRUE(subnet.link_up("node1", "mthca0", 1));
    pass(10);
    expect_right(find(gid, lookup_mode::sa_only), 2, false);

    EXPECT_TRUE(subnet.link_down("node1", "mthca0", 1));
    EXPECT_TRUE(subnet.link_down("node1", "mthca0", 2));
    pass(10);
    EXPECT_EQ(find(gid).status, path_status::no_active_port);
    EXPECT_EQ(find(address, lookup_mode::sa_only).status, path_status::no_active_port);
    EXPECT_TRUE(asker.unload());
}

} // namespace
