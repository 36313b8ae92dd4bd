// The whole stack on the embedded subnet: hosts that start, talk to the SA while the fabric misbehaves, and stop.
// Nothing may be lost, doubled or left behind, in any simulated order and on threads.
#include <gtest/gtest.h>

#include "host/fabric/embedded/subnet.h"
#include "host/kernel/machine.h"
#include "kernel/sync.h"
#include "kernel/time.h"
#include "tests/stack/gsi-client.h"
#include "timing.h"
#include "verbs.h"

namespace
{

constexpr kq_request_event_record_t every_event{kq_async_even_all, nullptr};

void hear_event(kq_event_record_st event)
{
    schedule_timeout_uninterruptible(1); // others pile up behind it
    kq_port_attrib_t port;
    EXPECT_EQ(kq_port_query(event.hca_app_h, event.port_num, &port), kq_return_ok);
}

// Posts from a task, from a timer that arms itself, and from the completion context.
void start_talk_and_stop(size_t answers)
{
    kq_hca_h_t hca;
    ASSERT_EQ(kq_hca_open(&mthca0, 0, &hca), kq_return_ok);
    gsi_client client(4, 1);
    client.then = [&](gsi_dtgrm_t*) {
        if (client.lines.size() % 3 == 0) client.post();
    };
    ASSERT_EQ(kq_set_sleepable_async_event_cb(hca, &every_event, hear_event), kq_return_ok);
    struct {
        timing_t timer;
        gsi_client* client;
        void run()
        {
            client->post();
            timer.expires = jiffies + 1;
            add_timing(&timer);
        }
    } periodic{{}, &client};
    init_timing(&periodic.timer);
    periodic.timer.function = [](unsigned long self) { reinterpret_cast<decltype(periodic)*>(self)->run(); };
    periodic.timer.data = reinterpret_cast<unsigned long>(&periodic);
    periodic.timer.atomic = true;
    periodic.run();

    const unsigned long limit = jiffies + 20 * HZ;
    while (client.answered < answers && jiffies < limit) {
        client.post();
        schedule_timeout_uninterruptible(1);
    }
    EXPECT_GE(client.answered, answers);

    del_timing_sync(&periodic.timer);
    EXPECT_EQ(kq_dell_sleepable_async_event_cb(hca, hear_event), kq_return_ok);
    client.close();
    EXPECT_EQ(client.lines.size(), client.posted + client.answered);
    EXPECT_EQ(kq_hca_close(hca), kq_return_ok);
}

void run_hosts(kernel::executor& exec, size_t answers)
{
    embedded::subnet net(exec);
    net.faults.loss_percent = 10;
    net.faults.duplicate_percent = 10;
    net.faults.jitter_ticks = 2;
    kernel::machine hosts[2] = {{exec, "node1"}, {exec, "node2"}};
    std::vector<kernel::task*> tasks;
    for (kernel::machine& host : hosts) {
        host.plug(*net.add_host(host.name())[0]);
        tasks.push_back(&host.start("client", [answers] {
            for (int times = 0; times < 3; ++times) start_talk_and_stop(answers);
        }));
    }
    hosts[0].enter("operator", [&] {
        for (int i = 0; i <= 50; ++i) {
            for (const kernel::machine& host : hosts)
                ASSERT_TRUE(i % 4 == 1 ? net.link_down(host.name(), "mthca0", 1)
                                       : net.link_up(host.name(), "mthca0", 1));
            schedule_timeout_uninterruptible(1);
        }
    });
    for (kernel::task* each : tasks) exec.join(*each);
}

TEST(traffic, leaves_nothing_behind_in_any_simulated_order)
{
    for (uint64_t seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        run_hosts(*kernel::make_simulation({.seed = seed, .explore_switches = true}), 20);
    }
}

TEST(traffic, leaves_nothing_behind_on_threads)
{
    run_hosts(*kernel::make_threaded_executor(), 100);
}

// Every failable call, asked to fail: it does, changes nothing, and works the next time.
TEST(stack_calls, fail_on_demand_and_leave_nothing_behind)
{
    const auto exec = kernel::make_simulation();
    embedded::subnet net(*exec);
    kernel::machine host(*exec, "node1");
    host.plug(*net.add_host("node1")[0]);
    kq_hca_h_t hca;
    kq_hca_name name;
    kq_hca_attrib_t attributes;
    kq_port_attrib_t port;
    kq_gid_t gid;
    kq_p_key_t p_key;
    int count = 1;
    gsi_class_handle_t handle;
    gsi_dtgrm_pool_handle_t pool;
    gsi_dtgrm_t* datagram;
    const gsi_completion_fn_t put = [](gsi_class_handle_t, void*, gsi_dtgrm_t* given) { gsi_dtgrm_pool_put(given); };
    const std::pair<const char*, std::function<int()>> calls[] = {
        {"kq_list_hcas", [&] { return kq_list_hcas(&name, 1) - 1; }},
        {"kq_hca_open", [&] { return kq_hca_open(&name, 0, &hca); }},
        {"kq_hca_query", [&] { return kq_hca_query(hca, &attributes); }},
        {"kq_port_query", [&] { return kq_port_query(hca, 1, &port); }},
        {"kq_get_port_gid_tbl", [&] { return kq_get_port_gid_tbl(hca, 1, &count, &gid); }},
        {"kq_get_port_partition_tbl", [&] { return kq_get_port_partition_tbl(hca, 1, &count, &p_key); }},
        {"kq_set_sleepable_async_event_cb",
         [&] { return kq_set_sleepable_async_event_cb(hca, &every_event, hear_event); }},
        {"gsi_register_class", [&] { return gsi_register_class(3, 2, &name, 1, 0, 0, put, put, nullptr, &handle); }},
        {"gsi_dtgrm_pool_create_named", [&] { return gsi_dtgrm_pool_create_named(1, &pool, "one"); }},
        {"gsi_dtgrm_pool_get", [&] { return gsi_dtgrm_pool_get(pool, &datagram); }},
        {"gsi_post_send_dtgrm", [&] { return gsi_post_send_dtgrm(handle, datagram, nullptr); }},
        {"gsi_deregister_class",
         [&] {
             schedule_timeout_uninterruptible(1);
             return gsi_deregister_class(handle);
         }},
    };
    host.enter("test", [&] {
        for (const auto& [call, make] : calls) {
            host.faults.fail_calls(call, 1);
            EXPECT_LT(make(), 0) << call;
            EXPECT_EQ(make(), 0) << call;
        }
        EXPECT_EQ(gsi_dtgrm_pool_destroy(pool), 0);
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(hca, hear_event), kq_return_ok);
        EXPECT_EQ(kq_hca_close(hca), kq_return_ok);
    });
}

} // namespace
