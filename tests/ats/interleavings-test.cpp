// Whatever meets whatever: a seed decides which task goes on at every lock, unlock and post.
#include <random>

#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "tests/ats/ats-world.h"

namespace
{

void for_seeds(uint64_t count, const std::function<void(uint64_t seed, ats_world& w)>& scenario)
{
    for (uint64_t seed = 1; seed <= count && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        ats_world w({.seed = seed, .explore_switches = true}, {.fault_seed = seed});
        scenario(seed, w);
    }
}

// Askers, flapping links, updates and a bad network. Half of the hosts are unloaded in the middle of it.
TEST(interleavings, every_request_ends_once_and_none_after_the_unloading)
{
    for_seeds(150, [](uint64_t seed, ats_world& w) {
        std::mt19937_64 dice(seed);
        const auto pause = [&dice](uint64_t most) { schedule_timeout_uninterruptible(dice() % most); };
        ats_host& host = w.add({.ports = {2}}).load();
        host.link_up(1);
        const bool is_cut_short = seed % 2;
        const std::vector<kq_gid_t> gids = {host.gid(1), host.gid(2), {1, 1}};
        w.subnet.faults.loss_percent = 10;
        w.subnet.faults.duplicate_percent = 20;
        w.subnet.faults.jitter_ticks = 30;

        struct question {
            asker who;
            ibat_stat_t status = ibat_stat_ok;
        };
        std::vector<question> questions(36);
        std::vector<kernel::task*> tasks;
        bool is_leaving = false;
        for (size_t number = 0; number < 3; ++number)
            tasks.push_back(&host.start("asker", [&, number] {
                for (size_t i = number; i < questions.size() && !is_leaving; i += 3) {
                    questions[i].status = host.reverse(gids[dice() % 3], questions[i].who);
                    pause(60);
                }
            }));
        tasks.push_back(&host.start("links", [&] {
            for (int i = 0; i < 12; ++i) {
                const int port = 1 + static_cast<int>(dice() % 2);
                EXPECT_TRUE(dice() % 3 ? w.subnet.link_up("node1", "mthca0", port)
                                       : w.subnet.link_down("node1", "mthca0", port));
                pause(80);
            }
            EXPECT_TRUE(w.subnet.link_up("node1", "mthca0", 2));
        }));
        tasks.push_back(&host.start("writer", [&] {
            for (int i = 0; i < 6; ++i) {
                host.machine().proc.write("dorvex/ats/control", i % 2 ? "set_ip_addrs 10.0.0.1" : "rarp 0x1");
                pause(100);
            }
        }));
        if (is_cut_short) {
            w.at(dice() % 600);
            is_leaving = true;
            for (size_t i = 0; i < 3; ++i) host.finish(*tasks[i]); // UCM detaches when nobody calls any more
            tasks.erase(tasks.begin(), tasks.begin() + 3);
            host.unload();
            EXPECT_EQ(host.held(), "");
        }
        for (kernel::task* each : tasks) host.finish(*each);
        std::vector<size_t> told;
        for (const question& each : questions) told.push_back(each.who.answers.size());
        w.at(w.sim->now() + 4000);
        for (size_t i = 0; i < questions.size(); ++i) {
            const size_t now = questions[i].who.answers.size(), at_most = questions[i].status == ibat_stat_ok ? 0 : 1;
            EXPECT_TRUE(is_cut_short ? now == told[i] && now <= at_most : now == at_most);
        }
        if (!is_cut_short) host.unload();
        EXPECT_EQ(host.held(), "");
    });
}

// The SA has lost the record, and a check finds out at the very moment of the unloading: what it registers again must
// not be left behind.
TEST(interleavings, a_check_registers_nothing_behind_the_unloading)
{
    for_seeds(200, [](uint64_t seed, ats_world& w) {
        ats_host& host = w.add({.ports = {2}, .trace = trace_debug, .has_ucm = false}).load();
        const std::string armed = host.log().back();
        const uint64_t due = std::stoull(armed.substr(armed.find('=') + 1));
        host.link_up(1);
        w.at(due - 1);
        w.subnet.forget_all();
        w.subnet.faults.latency_ticks = seed % 4;
        kernel::task& unloading = host.start("rmmod", [&] {
            schedule_timeout_uninterruptible(1 + seed / 4 % 10);
            host.unload();
        });
        host.finish(unloading);
        w.at(due + 1000);
        EXPECT_THAT(w.records(), IsEmpty());
        EXPECT_EQ(host.held(), "");
    });
}

// UCM is unloaded right behind ats, while its requests are answered and time out: nobody calls into it any more.
TEST(interleavings, nobody_calls_a_peer_that_ats_has_let_go_of)
{
    for_seeds(200, [](uint64_t seed, ats_world& w) {
        const world::host_plan plan{.name = "node1", .modules = world::usual_modules("node1", "10.0.0.1")};
        world::host host(*w.sim, w.subnet, plan, ATS_MODULE_DIR, seed);
        kernel::machine& machine = host.machine();
        ASSERT_TRUE(host.load());
        EXPECT_TRUE(w.subnet.link_up("node1", "mthca0", 1));
        w.sim->settle();
        asker who;
        const auto ask = [&](const kq_gid_t& gid) {
            const world::published<ucm_get_ip_fn_t> get_ip(machine, "ucm_get_ip_fn");
            ibat_arp_data_t record{};
            (*get_ip)(&gid, &record, asker::called_back, &who);
        };
        w.subnet.faults.drop_next_answers = 1;
        machine.enter("early", [&] { ask({7, 7}); }); // times out at tick 1000
        w.at(999);
        std::vector<kernel::task*> tasks;
        tasks.push_back(&machine.start("late", [&] {
            ask({8, 8}); // answered at tick 1000
            schedule_timeout_uninterruptible(1);
        }));
        w.subnet.faults.latency_ticks = 1;
        for (const char* module : {"ats", "ucm"})
            tasks.push_back(&machine.start(module, [&machine, module] {
                schedule_timeout_uninterruptible(1);
                while (!machine.modules.rmmod(module)) machine.exec().relax();
            }));
        for (kernel::task* each : tasks) w.sim->join(*each);
        EXPECT_EQ(who.answers.size(), 2u);
        EXPECT_THAT(w.records(), IsEmpty());
    });
}

} // namespace
