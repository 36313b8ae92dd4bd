// Several events happen at the same time. Each test runs its scenario once for every order of the tasks that has at
// most one or two deviations from the plain order (host/exec/schedule.h). The environment variable ATS_DEVIATIONS sets
// another limit.
#include <csignal>
#include <cstdlib>

#include "console/host-plans.h"
#include "host/exec/schedule.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "tests/ats/ats-world.h"

namespace
{

const exec::systematic_schedule* present_order = nullptr;

// A hard error ends the process with a signal. This signal handler prints the order that has caused the error.
void print_order(int signal)
{
    std::signal(signal, SIG_DFL);
    if (present_order) std::fprintf(stderr, "in the order %s\n", present_order->describe().c_str());
}

int deviation_bound(int default_bound)
{
    const char* text = std::getenv("ATS_DEVIATIONS");
    return text ? std::atoi(text) : default_bound;
}

// The world of one run. A scenario first sets up its hosts; meanwhile the tasks run in the plain order. Then the
// scenario calls explore() for the ticks in which its events happen.
struct moment {
    ats_world w;
    exec::systematic_schedule& order;

    // Runs the world for `ticks`. During these ticks, the tasks run in `order`.
    void explore(uint64_t ticks)
    {
        order.explore(true);
        w.sim->run_for(ticks);
        order.explore(false);
    }

    // Waits for the tasks, and until every request has ended.
    void finish(ats_host& host, const std::vector<exec::task*>& tasks)
    {
        for (exec::task* each : tasks) host.finish(*each);
        w.sim->run_for(3000);
    }
};

void in_every_order(int bound, const std::function<void(moment&)>& scenario)
{
    exec::systematic_schedule order(deviation_bound(bound));
    present_order = &order;
    for (const int signal : {SIGABRT, SIGSEGV}) std::signal(signal, print_order);
    do {
        SCOPED_TRACE(order.describe());
        moment one{.w = ats_world({.order = &order}), .order = order};
        scenario(one);
    } while (!testing::Test::HasFailure() && order.next());
    for (const int signal : {SIGABRT, SIGSEGV}) std::signal(signal, SIG_DFL);
    present_order = nullptr;
    const char* name = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::printf("%s: %llu orders\n", name, static_cast<unsigned long long>(order.orders_tried()));
}

exec::task& start_rmmod(ats_host& host)
{
    return host.start("rmmod", [&host] { host.unload(); });
}

exec::task& start_write(ats_host& host, const std::string& command)
{
    return host.start("writer", [&host, command] { host.machine().proc.write("dorvex/ats/control", command); });
}

// The tick at which a host first checks its own record. The host was loaded at tick 0, so this is the delay that its
// trace line shows.
uint64_t first_check_tick(ats_host& host)
{
    for (const std::string& line : host.log())
        if (const size_t position = line.find("timeout="); position != std::string::npos)
            return std::stoull(line.substr(position + 8));
    ADD_FAILURE() << "no check is due";
    return 0;
}

TEST(every_order, of_a_stop_a_failover_and_the_answers_to_their_deletes)
{
    in_every_order(2, [](moment& moment) {
        ats_host& host = moment.w.add_registered({.ports = {2}});
        host.link_up(2);
        moment.w.subnet.faults.latency_ticks = 1;
        const std::vector<exec::task*> tasks = {&start_rmmod(host)};
        EXPECT_TRUE(moment.w.subnet.link_down("node1", "mthca0", 1));
        moment.explore(8);
        moment.finish(host, tasks);
        EXPECT_THAT(moment.w.records(), IsEmpty());
        EXPECT_EQ(host.leftovers(), "");
    });
}

TEST(every_order, of_the_answer_its_duplicate_the_time_out_and_the_stop_of_one_request)
{
    in_every_order(2, [](moment& moment) {
        ats_host& host = moment.w.add_registered();
        reverse_lookup lookup;
        moment.w.at(1000); // the request timer expires at multiples of 1000
        moment.w.subnet.faults.latency_ticks = 500;
        moment.w.subnet.faults.duplicate_percent = 100;
        EXPECT_EQ(host.reverse(host.gid(1), lookup), ibat_stat_pending);
        moment.w.at(1999);
        const std::vector<exec::task*> tasks = {&host.start("rmmod", [&host] {
            schedule_timeout_uninterruptible(1);
            host.unload();
        })};
        moment.explore(2);
        moment.w.subnet.faults.latency_ticks = 0;
        moment.finish(host, tasks);
        EXPECT_LE(lookup.answers.size(), 1u);
        EXPECT_EQ(host.leftovers(), "");
    });
}

// UCM is unloaded immediately after ats. After that, no code may call a function of UCM.
TEST(every_order, of_a_time_out_and_the_unloading_of_ats_and_ucm)
{
    in_every_order(1, [](moment& moment) {
        reverse_lookup lookup;
        const world::host_plan plan = console::usual_host("node1", "10.0.0.1");
        world::host host(*moment.w.sim, world::add_hcas(moment.w.subnet, plan).value(), plan,
                         world::default_module_folder(), host_random_seed);
        kernel::machine& machine = host.machine();
        ASSERT_TRUE(host.load());
        EXPECT_TRUE(moment.w.subnet.link_up("node1", "mthca0", 1));
        moment.w.sim->settle();
        moment.w.subnet.faults.drop_next_answers = 1;
        machine.enter("asker", [&] {
            const world::published<ucm_get_ip_fn_t> get_ip(machine, "ucm_get_ip_fn");
            const kq_gid_t gid{7, 7};
            ibat_arp_data_t record{};
            EXPECT_EQ((*get_ip)(&gid, &record, reverse_lookup::answered, &lookup), ibat_stat_pending);
        });
        moment.w.at(999);
        std::vector<exec::task*> tasks;
        for (const char* module : {"ats", "ucm"})
            tasks.push_back(&machine.start(module, [&machine, module] {
                schedule_timeout_uninterruptible(1);
                while (!machine.modules.rmmod(module)) schedule_timeout_uninterruptible(1);
            }));
        moment.explore(4);
        for (exec::task* each : tasks) moment.w.sim->join(*each);
        EXPECT_EQ(lookup.answers.size(), 1u);
        EXPECT_THAT(moment.w.records(), IsEmpty());
    });
}

TEST(every_order, of_two_updates_and_a_failover)
{
    in_every_order(2, [](moment& moment) {
        ats_host& host = moment.w.add_registered({.ports = {2}});
        host.link_up(2);
        const auto set_address = host.symbol<int32_t (*)(uint32_t)>("ats_sa_set_ip_addrs");
        const std::vector<exec::task*> tasks = {&start_write(host, "set_host_name other"),
                                                &host.start("caller", [&] { set_address(ip_of("10.0.0.9")); })};
        EXPECT_TRUE(moment.w.subnet.link_down("node1", "mthca0", 1));
        moment.explore(2);
        moment.finish(host, tasks);
        EXPECT_THAT(moment.w.records(), ElementsAre("node1.2 10.0.0.9 other"));
    });
}

// A host checks its own record. The SA has no record or does not answer, so the host registers again. Another event
// happens at the same time.
struct check_that_fails : testing::TestWithParam<const char*> {
};

TEST_P(check_that_fails, in_every_order)
{
    in_every_order(2, [](moment& moment) {
        const std::string other = GetParam(); // the other event
        ats_host& host = moment.w.add({.ports = {2}, .trace = trace_debug, .has_ucm = false}).load();
        const uint64_t due_tick = first_check_tick(host);
        host.link_up(1);
        host.link_up(2);
        moment.w.subnet.forget_all();
        if (other == "rename" || other == "flap") {
            // The SA does not answer the check. The other event happens when the request timer ends the check.
            moment.w.subnet.faults.drop_next_answers = 1;
            moment.w.at((due_tick + 1999) / 1000 * 1000 - 1);
        } else {
            // The other event happens when the answer to the check arrives.
            moment.w.subnet.faults.latency_ticks = 1;
            moment.w.at(due_tick + 1);
        }
        exec::task& other_task = host.start(other, [&] {
            schedule_timeout_uninterruptible(1);
            if (other == "unload") host.unload();
            if (other == "rename") host.machine().proc.write("dorvex/ats/control", "set_host_name new");
            if (other == "link_down" || other == "flap") (void)moment.w.subnet.link_down("node1", "mthca0", 1);
            if (other == "flap") (void)moment.w.subnet.link_up("node1", "mthca0", 1);
        });
        moment.explore(4);
        moment.finish(host, {&other_task});
        moment.w.sim->run_for(100);
        const std::map<std::string, std::vector<std::string>> end_records = {{"unload", {}},
                                                                             {"rename", {"node1.1 10.0.0.1 new"}},
                                                                             {"link_down", {"node1.2 10.0.0.1 node1"}},
                                                                             {"flap", {"node1.2 10.0.0.1 node1"}}};
        EXPECT_EQ(moment.w.records(), end_records.at(other));
    });
}

INSTANTIATE_TEST_SUITE_P(with_an, check_that_fails, testing::Values("unload", "rename", "link_down", "flap"),
                         [](const auto& info) { return std::string(info.param); });

TEST(every_order, of_a_load_and_the_events_of_its_ports)
{
    in_every_order(2, [](moment& moment) {
        ats_host& host = moment.w.add({.ports = {2}});
        const std::vector<exec::task*> tasks = {&host.start("insmod", [&host] { host.load(); })};
        EXPECT_TRUE(moment.w.subnet.link_up("node1", "mthca0", 1));
        EXPECT_TRUE(moment.w.subnet.link_down("node1", "mthca0", 1));
        EXPECT_TRUE(moment.w.subnet.link_up("node1", "mthca0", 2));
        moment.explore(2);
        moment.finish(host, tasks);
        EXPECT_THAT(moment.w.records(), ElementsAre("node1.2 10.0.0.1 node1"));
        host.unload();
        EXPECT_EQ(host.leftovers(), "");
    });
}

} // namespace
