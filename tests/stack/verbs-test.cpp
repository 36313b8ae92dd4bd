// The verbs layer: handles of HCAs, queries of ports, and events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "host/stack/verbs-service.h"
#include "host/world/module-folder.h"
#include "tests/stack/fake-hca.h"
#include "verbs.h"

using fabric::port_change;
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

constexpr kq_hca_name mthca0{"mthca0"};
constexpr kq_request_event_record_t all_events{kq_async_even_all, nullptr};

// The events that the subscriber below has got. For example, "up 1@20" is a link-up of port 1 at tick 20.
std::vector<std::string> reports;
std::function<void()> callback_action; // runs in every callback

void event_callback(kq_event_record_st event)
{
    std::string kind = "?";
    if (event.event_type == kq_async_r_port_link_up) kind = "up ";
    if (event.event_type == kq_async_r_port_link_down) kind = "down ";
    if (event.event_type == kq_async_r_port_sm_change) kind = "sm at " + std::to_string(event.type.data) + " ";
    reports.push_back(kind + std::to_string(event.port_num) + "@" + std::to_string(get_jiffies()));
    if (callback_action) callback_action();
}

// A machine with a fake HCA. subscribe() opens the HCA and subscribes to its events. The destructor unsubscribes and
// closes the HCA.
struct subscriber : machine_with_fake {
    subscriber()
    {
        reports.clear();
        callback_action = {};
    }
    ~subscriber()
    {
        run([&] {
            kq_dell_sleepable_async_event_cb(handle, event_callback);
            kq_hca_close(handle);
        });
    }
    void subscribe()
    {
        run([&] {
            ASSERT_EQ(kq_hca_open(&mthca0, 0, &handle), kq_return_ok);
            ASSERT_EQ(kq_set_sleepable_async_event_cb(handle, &all_events, event_callback), kq_return_ok);
        });
        settle();
    }

    kq_hca_h_t handle = nullptr;
};

// A port is active when a subscription to its events starts. The fabric reports the link-up before the subscription,
// during it or a moment later: the subscriber gets one link-up in each case. Later changes are further events.
TEST(verbs_events, report_once_a_link_that_comes_up_during_a_subscription)
{
    constexpr port_change link_up = port_change::link_up;
    constexpr port_change link_down = port_change::link_down;
    struct {
        const char* name;
        std::vector<port_change> while_read; // changes after the state was read and before the read returns
        uint64_t later_tick;
        std::vector<port_change> later; // changes at later_tick
        std::vector<std::string> expectation;
    } const cases[] = {
        {"up long ago", {}, 0, {}, {"up 1@0"}},
        {"the fabric reports it during the read", {link_up}, 0, {}, {"up 1@0"}},
        {"the fabric reports it a moment after the read", {}, 1, {link_up}, {"up 1@0"}},
        {"a later report is a new event", {}, 2, {link_up}, {"up 1@0", "up 1@2"}},
        {"down meanwhile", {link_down}, 0, {}, {"down 1@0"}},
        {"down and up meanwhile", {link_down, link_up}, 0, {}, {"down 1@0", "up 1@0"}},
        {"down and up later", {}, 0, {link_down, link_up}, {"up 1@0", "down 1@0", "up 1@0"}},
    };
    for (const auto& each : cases) {
        subscriber world;
        world.hca.ports[0].state = fabric::link_state::active;
        world.hca.while_read = [&](int port) {
            for (const port_change change : each.while_read)
                if (port == 1) world.hca.change(1, change);
        };
        world.subscribe();
        world.sim->run_until(each.later_tick);
        for (const port_change change : each.later) world.hca.change(1, change);
        world.settle();
        EXPECT_EQ(reports, each.expectation) << each.name;
    }
}

TEST(verbs_events, report_once_a_link_whose_announcement_waits_behind_another_callback)
{
    subscriber world;
    for (auto& port : world.hca.ports) port.state = fabric::link_state::active;
    callback_action = [] { schedule_timeout_uninterruptible(10); };
    world.subscribe();
    world.sim->run_until(5);
    world.hca.change(2, port_change::link_up); // the first report of this port still waits for the callback of port 1
    world.sim->run_until(100);
    EXPECT_THAT(reports, ElementsAre("up 1@0", "up 2@10"));
    for (const port_change again : {port_change::link_up, port_change::link_down, port_change::link_up})
        world.hca.change(2, again);
    world.sim->run_until(200);
    EXPECT_THAT(reports, ElementsAre("up 1@0", "up 2@10", "up 2@100", "down 2@110", "up 2@120"));
}

TEST(verbs_events, unsubscribing_waits_for_the_callback_and_drops_the_rest)
{
    subscriber world;
    world.subscribe();
    callback_action = [] { schedule_timeout_uninterruptible(30); };
    world.hca.change(1, port_change::link_up);
    world.hca.change(1, port_change::link_down); // waits for the first callback
    world.run([&] {
        schedule_timeout_uninterruptible(10);
        EXPECT_EQ(kq_hca_close(world.handle), kq_return_err_busy);
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(world.handle, event_callback), kq_return_ok);
        EXPECT_EQ(get_jiffies(), 30u);
        EXPECT_EQ(world.hca.listener, nullptr);
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(world.handle, event_callback), kq_return_err_general);
    });
    world.sim->run_until(100);
    EXPECT_THAT(reports, ElementsAre("up 1@0"));
}

TEST(verbs_events, of_two_subscribers_are_independent)
{
    static int other_count;
    static kq_hca_h_t other;
    other_count = 0;
    const kq_async_event_fn_t count_event = [](kq_event_record_st event) { other_count += event.hca_app_h == other; };
    subscriber world;
    world.subscribe();
    callback_action = [] { schedule_timeout_uninterruptible(10); };
    world.run([&] {
        ASSERT_EQ(kq_hca_open(&mthca0, 0, &other), kq_return_ok);
        ASSERT_EQ(kq_set_sleepable_async_event_cb(other, &all_events, count_event), kq_return_ok);
    });
    const stack::hca_events& events = *world.host.get<stack::verbs>().find(other);
    for (int i = 0; i < 3; ++i) world.hca.change(1, i % 2 == 0 ? port_change::link_down : port_change::link_up);
    world.run([&] {
        schedule_timeout_uninterruptible(5);
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(world.handle, event_callback), kq_return_ok);
        EXPECT_EQ(get_jiffies(), 10u);
    });
    world.settle();
    EXPECT_THAT(reports, ElementsAre("down 1@0"));
    EXPECT_EQ(other_count, 3);
    EXPECT_FALSE(events.is_subscribed(world.handle));
    EXPECT_TRUE(events.is_subscribed(other));
    world.run([&] {
        EXPECT_EQ(kq_hca_close(world.handle), kq_return_ok);
        EXPECT_EQ(kq_hca_close(other), kq_return_err_busy);
    });
    world.hca.change(1, port_change::link_up);
    world.settle();
    EXPECT_EQ(other_count, 4);
    world.run([&] {
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(other, count_event), kq_return_ok);
        EXPECT_EQ(kq_hca_close(other), kq_return_ok);
    });
    EXPECT_EQ(world.hca.listener, nullptr);
}

TEST(verbs_events, too_many_events_lose_the_oldest_but_never_the_last)
{
    subscriber world;
    world.subscribe();
    callback_action = [] { schedule_timeout_uninterruptible(1); };
    for (int i = 0; i < 1000; ++i) {
        world.hca.change(1, i % 2 == 0 ? port_change::link_down : port_change::link_up);
        world.hca.change(1, port_change::sm_change, static_cast<uint16_t>(i));
        if (i == 500) world.hca.change(2, port_change::link_up); // the only event of port 2
    }
    world.sim->run_until(200);
    constexpr size_t limit = 16; // the maximum number of waiting events of one kind and one port
    EXPECT_EQ(reports.size(), 2 * limit + 1);
    const auto is_link = [](const std::string& line) {
        return line.find(" 1@") != std::string::npos && line[0] != 's';
    };
    EXPECT_THAT(*std::find_if(reports.rbegin(), reports.rend(), is_link), testing::StartsWith("up 1"));
    EXPECT_THAT(reports.back(), testing::StartsWith("sm at 999 1"));
    EXPECT_EQ(std::count_if(reports.begin(), reports.end(), [](const auto& line) { return line.starts_with("up 2"); }),
              1);
}

TEST(verbs_events, a_spread_delays_link_ups_and_registrations_but_no_link_down)
{
    using enum port_change;
    constexpr uint64_t spread_ticks = 1000;
    subscriber world;
    world.subscribe();
    world.host.get<stack::link_up_spread>().ticks = spread_ticks;
    const auto reports_after = [&](std::initializer_list<port_change> changes, uint64_t ticks) {
        reports.clear();
        for (const port_change each : changes) world.hca.change(1, each, 9);
        world.sim->run_for(ticks);
        std::vector<std::string> kinds;
        for (const std::string& each : reports) kinds.push_back(each.substr(0, each.find('@')));
        return kinds;
    };
    EXPECT_THAT(reports_after({link_down}, 0), ElementsAre("down 1"));
    EXPECT_THAT(reports_after({link_up}, spread_ticks), ElementsAre("up 1"));
    EXPECT_THAT(reports_after({link_down, link_up, link_down}, 2 * spread_ticks), ElementsAre("down 1", "down 1"))
        << "a link-up that a link-down has followed must not be reported";
    EXPECT_THAT(reports_after({link_up}, spread_ticks), ElementsAre("up 1"));
    EXPECT_THAT(reports_after({reregister, reregister}, spread_ticks),
                ElementsAre("sm at 9 1", "sm at 9 1", "down 1", "up 1"))
        << "sm_change is reported at once; one registration is enough for both";

    std::vector<uint64_t> ticks; // from a link-up to its report
    for (int i = 0; i < 100; ++i) {
        const uint64_t begin = world.sim->now();
        reports_after({link_up}, spread_ticks);
        ticks.push_back(std::stoull(reports[0].substr(reports[0].find('@') + 1)) - begin);
    }
    EXPECT_LT(std::ranges::min(ticks), spread_ticks / 10);
    EXPECT_GT(std::ranges::max(ticks), spread_ticks * 9 / 10);
}

TEST(verbs, queries_read_the_port_and_refuse_stale_handles_and_missing_ports)
{
    machine_with_fake world;
    world.hca.ports[1].state = fabric::link_state::active;
    world.hca.ports[1].p_keys = {0x8001, 0xFFFF, 0x7FFF};
    world.run([&] {
        kq_hca_name names[3];
        EXPECT_EQ(kq_list_hcas(names, 0), 0);
        EXPECT_EQ(kq_list_hcas(names, 3), 1);
        EXPECT_EQ(world.host.log.raw(), "");
        world.host.plug(world.hca);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(kq_list_hcas(names, 1), 1);
        EXPECT_EQ(world.host.log.raw(), "verbs - this host has 2 hcas, only the first 1 are used\n");
        kq_hca_h_t hca, other;
        const kq_hca_name unknown{"mthca1"};
        EXPECT_EQ(kq_hca_open(&unknown, 0, &hca), kq_return_err_invalid_hca);
        ASSERT_EQ(kq_hca_open(names, 0, &hca), kq_return_ok);
        ASSERT_EQ(kq_hca_open(names, 0, &other), kq_return_ok);

        kq_hca_attrib_t attributes;
        kq_port_attrib_t port;
        ASSERT_EQ(kq_port_query(hca, 2, &port), kq_return_ok);
        EXPECT_EQ(port.port_state, kq_state_linkActive);
        kq_p_key_t p_keys[9];
        int count = 9;
        ASSERT_EQ(kq_get_port_partition_tbl(hca, 2, &count, p_keys), kq_return_ok);
        EXPECT_EQ(count, 3);
        EXPECT_EQ(p_keys[2], 0x7FFF);

        for (const kq_port_num_t missing : {0, 3})
            EXPECT_EQ(kq_port_query(hca, missing, &port), kq_return_err_invalid_port);
        EXPECT_EQ(kq_hca_close(hca), kq_return_ok);
        EXPECT_EQ(kq_hca_query(hca, &attributes), kq_return_err_invalid_hca) << "a stale handle";
        EXPECT_EQ(kq_hca_close(hca), kq_return_err_invalid_hca);
        EXPECT_EQ(kq_port_query(other, 1, &port), kq_return_ok) << "another handle of this HCA is still open";
        EXPECT_EQ(kq_hca_close(other), kq_return_ok);
    });
}

// The exit function of a module must release all resources that the module got from the stack. If it leaves some, the
// unloading ends the program before the image is unmapped. The error text must name every resource that is left.
TEST(stack_services, name_what_a_module_leaves_behind)
{
    machine_with_fake machine;
    const std::string probe = world::default_module_folder() + "/probe.so";
    ASSERT_TRUE(machine.host.modules.insmod(probe));
    EXPECT_TRUE(machine.host.modules.rmmod("probe"));
    const auto unload_with_leftovers = [&] {
        machine.host.modules.insmod(probe, "forget=2");
        machine.host.modules.rmmod("probe");
    };
    EXPECT_DEATH(unload_with_leftovers(),
                 AllOf(HasSubstr("probe is unloaded and leaves behind "),
                       ContainsRegex("a timer that calls probe\\+0x[0-9a-f]+ at tick 1000"),
                       HasSubstr("open HCA mthca0"), HasSubstr("a subscription to the events of mthca0"),
                       HasSubstr("GSI class 3 of port 1 of mthca0"), HasSubstr("datagram pool 'probe'"),
                       HasSubstr("open registry key dorvex/logger"),
                       HasSubstr("a subscription to the registry key dorvex/logger")));
}

} // namespace
