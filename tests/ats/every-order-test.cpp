// Moments at which several things meet, in every order of the tasks that take part, up to a bound on how often an order
// deviates from first come, first served. ATS_DEVIATIONS=3 raises the bound.
#include <csignal>
#include <cstdlib>

#include "host/exec/schedule.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "tests/ats/ats-world.h"

namespace
{

const exec::systematic_schedule* present_order = nullptr;

// A hard error ends the process: the order that led there is told before.
void tell_order(int signal)
{
    std::signal(signal, SIG_DFL);
    if (present_order) std::fprintf(stderr, "in the order %s\n", present_order->describe().c_str());
}

int deviations(int by_default)
{
    const char* chosen = std::getenv("ATS_DEVIATIONS");
    return chosen ? std::atoi(chosen) : by_default;
}

// The world of one order: scenarios set up their hosts, and then say which moment counts.
struct moment {
    ats_world w;
    exec::systematic_schedule& order;

    // From this instant on for so many ticks, tasks go on in the order being tried.
    void explore(uint64_t ticks)
    {
        order.explore(true);
        w.sim->run_for(ticks);
        order.explore(false);
    }

    // Everything that was begun has come to its end.
    void finish(ats_host& host, const std::vector<exec::task*>& tasks)
    {
        for (exec::task* each : tasks) host.finish(*each);
        w.sim->run_for(3000);
    }
};

void in_every_order(int bound, const std::function<void(moment&)>& scenario)
{
    exec::systematic_schedule order(deviations(bound));
    present_order = &order;
    for (const int deadly : {SIGABRT, SIGSEGV}) std::signal(deadly, tell_order);
    do {
        SCOPED_TRACE(order.describe());
        moment one{.w = ats_world({.order = &order}), .order = order};
        scenario(one);
    } while (!testing::Test::HasFailure() && order.next());
    for (const int deadly : {SIGABRT, SIGSEGV}) std::signal(deadly, SIG_DFL);
    present_order = nullptr;
    const char* name = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::printf("%s: %llu orders\n", name, static_cast<unsigned long long>(order.orders_tried()));
}

exec::task& unloading(ats_host& host)
{
    return host.start("rmmod", [&host] { host.unload(); });
}

exec::task& writing(ats_host& host, const std::string& command)
{
    return host.start("writer", [&host, command] { host.machine().proc.write("dorvex/ats/control", command); });
}

// When the first check of a host is due that has just been loaded, tracing.
uint64_t first_check_tick(ats_host& host)
{
    for (const std::string& line : host.log())
        if (const size_t at = line.find("timeout="); at != std::string::npos) return std::stoull(line.substr(at + 8));
    ADD_FAILURE() << "no check is due";
    return 0;
}

TEST(every_order, of_a_stop_a_failover_and_the_answers_to_their_deletes)
{
    in_every_order(2, [](moment& at) {
        ats_host& host = at.w.add_registered({.ports = {2}});
        host.link_up(2);
        at.w.subnet.faults.latency_ticks = 1;
        const std::vector<exec::task*> tasks = {&unloading(host)};
        EXPECT_TRUE(at.w.subnet.link_down("node1", "mthca0", 1));
        at.explore(8);
        at.finish(host, tasks);
        EXPECT_THAT(at.w.records(), IsEmpty());
        EXPECT_EQ(host.held(), "");
    });
}

TEST(every_order, of_the_answer_its_duplicate_the_time_out_and_the_stop_of_one_request)
{
    in_every_order(2, [](moment& at) {
        ats_host& host = at.w.add_registered();
        asker who;
        at.w.at(1000); // the request timer's ticks are the full thousands
        at.w.subnet.faults.latency_ticks = 500;
        at.w.subnet.faults.duplicate_percent = 100;
        EXPECT_EQ(host.reverse(host.gid(1), who), ibat_stat_pending);
        at.w.at(1999);
        const std::vector<exec::task*> tasks = {&host.start("rmmod", [&host] {
            schedule_timeout_uninterruptible(1);
            host.unload();
        })};
        at.explore(2);
        at.w.subnet.faults.latency_ticks = 0;
        at.finish(host, tasks);
        EXPECT_LE(who.answers.size(), 1u);
        EXPECT_EQ(host.held(), "");
    });
}

// UCM is unloaded right behind ats: nobody may call into it any more.
TEST(every_order, of_a_time_out_and_the_unloading_of_ats_and_of_who_asked_it)
{
    in_every_order(1, [](moment& at) {
        asker who;
        const world::host_plan plan{.name = "node1", .modules = world::usual_modules("node1", "10.0.0.1")};
        world::host host(*at.w.sim, world::add_hcas(at.w.subnet, plan).value(), plan, world::default_module_folder(),
                         host_random_seed);
        kernel::machine& machine = host.machine();
        ASSERT_TRUE(host.load());
        EXPECT_TRUE(at.w.subnet.link_up("node1", "mthca0", 1));
        at.w.sim->settle();
        at.w.subnet.faults.drop_next_answers = 1;
        machine.enter("asker", [&] {
            const world::published<ucm_get_ip_fn_t> get_ip(machine, "ucm_get_ip_fn");
            const kq_gid_t gid{7, 7};
            ibat_arp_data_t record{};
            EXPECT_EQ((*get_ip)(&gid, &record, asker::called_back, &who), ibat_stat_pending);
        });
        at.w.at(999);
        std::vector<exec::task*> tasks;
        for (const char* module : {"ats", "ucm"})
            tasks.push_back(&machine.start(module, [&machine, module] {
                schedule_timeout_uninterruptible(1);
                while (!machine.modules.rmmod(module)) schedule_timeout_uninterruptible(1);
            }));
        at.explore(4);
        for (exec::task* each : tasks) at.w.sim->join(*each);
        EXPECT_EQ(who.answers.size(), 1u);
        EXPECT_THAT(at.w.records(), IsEmpty());
    });
}

TEST(every_order, of_two_updates_and_a_failover)
{
    in_every_order(2, [](moment& at) {
        ats_host& host = at.w.add_registered({.ports = {2}});
        host.link_up(2);
        const auto set_address = host.symbol<int32_t (*)(uint32_t)>("ats_sa_set_ip_addrs");
        const std::vector<exec::task*> tasks = {&writing(host, "set_host_name other"),
                                                &host.start("caller", [&] { set_address(ip_of("10.0.0.9")); })};
        EXPECT_TRUE(at.w.subnet.link_down("node1", "mthca0", 1));
        at.explore(2);
        at.finish(host, tasks);
        EXPECT_THAT(at.w.records(), ElementsAre("node1.2 10.0.0.9 other"));
    });
}

// A check finds that the record is gone, or gets no answer, and registers anew when something else happens.
struct check_that_fails : testing::TestWithParam<const char*> {
};

TEST_P(check_that_fails, in_every_order)
{
    in_every_order(2, [](moment& at) {
        const std::string other = GetParam();
        ats_host& host = at.w.add({.ports = {2}, .trace = trace_debug, .has_ucm = false}).load();
        const uint64_t due_tick = first_check_tick(host);
        host.link_up(1);
        host.link_up(2);
        at.w.subnet.forget_all();
        if (other == "rename" ||
            other == "flap") { // meets the request timer, which finds the check unanswered after a second
            at.w.subnet.faults.drop_next_answers = 1;
            at.w.at((due_tick + 1999) / 1000 * 1000 - 1);
        } else { // meets the answer to the check
            at.w.subnet.faults.latency_ticks = 1;
            at.w.at(due_tick + 1);
        }
        exec::task& disturbing = host.start(other, [&] {
            schedule_timeout_uninterruptible(1);
            if (other == "unload") host.unload();
            if (other == "rename") host.machine().proc.write("dorvex/ats/control", "set_host_name new");
            if (other == "link_down" || other == "flap") (void)at.w.subnet.link_down("node1", "mthca0", 1);
            if (other == "flap") (void)at.w.subnet.link_up("node1", "mthca0", 1);
        });
        at.explore(4);
        at.finish(host, {&disturbing});
        at.w.sim->run_for(100);
        const std::map<std::string, std::vector<std::string>> left = {{"unload", {}},
                                                                      {"rename", {"node1.1 10.0.0.1 new"}},
                                                                      {"link_down", {"node1.2 10.0.0.1 node1"}},
                                                                      {"flap", {"node1.2 10.0.0.1 node1"}}};
        EXPECT_EQ(at.w.records(), left.at(other));
    });
}

INSTANTIATE_TEST_SUITE_P(and_an, check_that_fails, testing::Values("unload", "rename", "link_down", "flap"),
                         [](const auto& info) { return std::string(info.param); });

TEST(every_order, of_a_load_and_the_events_of_its_ports)
{
    in_every_order(2, [](moment& at) {
        ats_host& host = at.w.add({.ports = {2}});
        const std::vector<exec::task*> tasks = {&host.start("insmod", [&host] { host.load(); })};
        EXPECT_TRUE(at.w.subnet.link_up("node1", "mthca0", 1));
        EXPECT_TRUE(at.w.subnet.link_down("node1", "mthca0", 1));
        EXPECT_TRUE(at.w.subnet.link_up("node1", "mthca0", 2));
        at.explore(2);
        at.finish(host, tasks);
        EXPECT_THAT(at.w.records(), ElementsAre("node1.2 10.0.0.1 node1"));
        host.unload();
        EXPECT_EQ(host.held(), "");
    });
}

} // namespace
