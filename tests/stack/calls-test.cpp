// Calls of the kernel and the stack: bad arguments, and calls in which other tasks may run. Also the tasks of the
// stack: that they end, and that a hanging one is found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/exec/schedule.h"
#include "host/stack/boot.h"
#include "host/stack/gsi-service.h"
#include "host/stack/liveness.h"
#include "host/stack/registry.h"
#include "kernel/errno.h"
#include "kernel/memory.h"
#include "repository.h"
#include "tests/stack/fake-hca.h"
#include "tests/stack/gsi-client.h"
#include "timing.h"
#include "verbs.h"

using testing::ElementsAre;

namespace
{

constexpr kq_request_event_record_t every_event{kq_async_even_all, nullptr};

TEST(calls_of_the_stack, refuse_each_bad_argument_and_store_nothing)
{
    machine_with_fake world;
    world.hca.ports[0].gids = {fabric::make_gid(1, 2), fabric::make_gid(1, 3)};
    world.hca.ports[0].p_keys = {0xFFFF};
    world.host.get<stack::registry>().set("key", "value", 5);
    world.run([&] {
        const rep_key_t root = rep_get_root();
        rep_key_t key = 0;
        rep_notifier_t notifier = 0;
        intptr_t value = 0;
        int length = sizeof value, wrong_length = 4;
        const auto changed = [](const char*, intptr_t, void*) {};
        ASSERT_EQ(rep_open_key(root, "key", REP_OPEN_EXISTING, &key), 0);
        const rep_key_t good_key = key;
        const kq_hca_name unknown{"mthca1"};
        const auto completed = [](gsi_class_handle_t, void*, gsi_dtgrm_t*) {};
        gsi_class_handle_t handle = nullptr;
        gsi_dtgrm_pool_handle_t pool = nullptr;
        gsi_dtgrm_t* datagram = nullptr;
        const auto join = [&](const kq_hca_name* hca, int port, gsi_completion_fn_t sent, gsi_completion_fn_t received,
                              gsi_class_handle_t* stored) {
            return gsi_join_class(MAD_CLASS_SUBN_ADM, 2, hca, port, sent, received, nullptr, stored);
        };
        const std::pair<int, int> results[] = {
            {rep_open_key(root, nullptr, REP_OPEN_EXISTING, &key), -EK_INVAL},
            {rep_open_key(root, "key", 1, &key), -EK_INVAL},
            {rep_open_key(root, "key", REP_OPEN_EXISTING, nullptr), -EK_INVAL},
            {rep_open_key(root, "none", REP_OPEN_EXISTING, &key), -EK_NOENT},
            {rep_open_key(99, "key", REP_OPEN_EXISTING, &key), -EK_INVAL},
            {rep_get_value(key, nullptr, 0, &value, &length), -EK_INVAL},
            {rep_get_value(key, "value", 1, &value, &length), -EK_INVAL},
            {rep_get_value(key, "value", 0, nullptr, &length), -EK_INVAL},
            {rep_get_value(key, "value", 0, &value, nullptr), -EK_INVAL},
            {rep_get_value(key, "value", 0, &value, &wrong_length), -EK_INVAL},
            {rep_get_value(key, "none", 0, &value, &length), -EK_NOENT},
            {rep_get_value(99, "value", 0, &value, &length), -EK_INVAL},
            {rep_notify_key_change(key, 1, REP_NOTIFY_ON_VALUE, changed, nullptr, &notifier), -EK_INVAL},
            {rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, 1, changed, nullptr, &notifier), -EK_INVAL},
            {rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, nullptr, nullptr, &notifier),
             -EK_INVAL},
            {rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, changed, nullptr, nullptr),
             -EK_INVAL},
            {rep_notify_key_change(99, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, changed, nullptr, &notifier),
             -EK_INVAL},
            {gsi_dtgrm_pool_create_named(0, &pool, "pool"), -EK_INVAL},
            {gsi_dtgrm_pool_create_named(1, nullptr, "pool"), -EK_INVAL},
            {gsi_dtgrm_pool_create_named(1, &pool, nullptr), -EK_INVAL},
            {gsi_dtgrm_pool_get(nullptr, &datagram), -EK_INVAL},
            {gsi_dtgrm_pool_destroy(nullptr), -EK_INVAL},
            {gsi_register_class(MAD_CLASS_SUBN_ADM, 2, &mthca0, 1, 1, 0, completed, completed, nullptr, &handle),
             -EK_INVAL},
            {gsi_register_class(MAD_CLASS_SUBN_ADM, 2, &mthca0, 1, 0, 1, completed, completed, nullptr, &handle),
             -EK_INVAL},
            {join(nullptr, 1, completed, completed, &handle), -EK_INVAL},
            {join(&mthca0, 1, nullptr, completed, &handle), -EK_INVAL},
            {join(&mthca0, 1, completed, nullptr, &handle), -EK_INVAL},
            {join(&mthca0, 1, completed, completed, nullptr), -EK_INVAL},
            {join(&unknown, 1, completed, completed, &handle), -EK_NXIO},
            {join(&mthca0, 0, completed, completed, &handle), -EK_INVAL},
            {join(&mthca0, 3, completed, completed, &handle), -EK_INVAL},
            {gsi_deregister_class(nullptr), -EK_INVAL},
        };
        for (size_t i = 0; i < std::size(results); ++i) EXPECT_EQ(results[i].first, results[i].second) << "call " << i;
        EXPECT_EQ(key, good_key);
        EXPECT_EQ(value, 0);
        EXPECT_EQ(notifier, 0);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(pool, nullptr);
        rep_notify_del(0); // no subscription
        rep_close_key(key);
        EXPECT_EQ(rep_get_value(key, "value", 0, &value, &length), -EK_INVAL) << "a closed key";

        gsi_client client(2, 1);
        EXPECT_EQ(gsi_dtgrm_pool_get(client.pool, nullptr), -EK_INVAL);
        EXPECT_EQ(gsi_register_class(MAD_CLASS_SUBN_ADM, 2, &mthca0, 1, 0, 0, completed, completed, nullptr, &handle),
                  -EK_EXIST);
        datagram = client.make();
        EXPECT_EQ(gsi_post_send_dtgrm(nullptr, datagram, nullptr), -EK_INVAL);
        gsi_dtgrm_pool_put(datagram); // after a refused post, the client still owns it
        EXPECT_EQ(join(&mthca0, 2, completed, completed, &handle), 0) << "the last port";
        EXPECT_EQ(gsi_deregister_class(handle), 0);
        client.close();
    });
}

TEST(calls_of_the_stack, refuse_bad_arguments_about_an_hca)
{
    machine_with_fake world;
    world.hca.ports[0].gids = {fabric::make_gid(1, 2), fabric::make_gid(1, 3)};
    world.run([&] {
        kq_hca_name names[1];
        kq_hca_h_t hca = nullptr;
        kq_hca_attrib_t attributes{};
        kq_port_attrib_t port{};
        kq_gid_t gids[2];
        int count = 2, none = 0, negative = -1;
        const auto event = [](kq_event_record_st) {};
        constexpr kq_request_event_record_t no_events{};
        constexpr kq_return_t refused = kq_return_err_general;
        ASSERT_EQ(kq_hca_open(&mthca0, 0, &hca), kq_return_ok);
        const kq_hca_h_t good = hca, stale = reinterpret_cast<kq_hca_h_t>(99);
        const std::pair<int, int> results[] = {
            {kq_list_hcas(nullptr, 1), refused},
            {kq_list_hcas(names, -1), refused},
            {kq_hca_open(nullptr, 0, &hca), refused},
            {kq_hca_open(&mthca0, 1, &hca), refused},
            {kq_hca_open(&mthca0, 0, nullptr), refused},
            {kq_hca_query(good, nullptr), refused},
            {kq_port_query(good, 1, nullptr), refused},
            {kq_port_query(stale, 1, &port), kq_return_err_invalid_hca},
            {kq_get_port_gid_tbl(good, 1, nullptr, gids), refused},
            {kq_get_port_gid_tbl(good, 1, &negative, gids), refused},
            {kq_get_port_gid_tbl(good, 1, &count, nullptr), refused},
            {kq_get_port_gid_tbl(good, 3, &count, gids), kq_return_err_invalid_port},
            {kq_get_port_gid_tbl(good, 1, &none, gids), kq_return_ok},
            {kq_set_sleepable_async_event_cb(good, nullptr, event), refused},
            {kq_set_sleepable_async_event_cb(good, &every_event, nullptr), refused},
            {kq_set_sleepable_async_event_cb(good, &no_events, event), refused},
            {kq_set_sleepable_async_event_cb(stale, &every_event, event), kq_return_err_invalid_hca},
            {kq_set_sleepable_async_event_cb(good, &every_event, event), kq_return_ok},
            {kq_set_sleepable_async_event_cb(good, &every_event, event), kq_return_err_busy},
            {kq_dell_sleepable_async_event_cb(stale, event), kq_return_err_invalid_hca},
            {kq_dell_sleepable_async_event_cb(good, [](kq_event_record_st) {}), refused},
            {kq_hca_close(good), kq_return_err_busy},
            {kq_dell_sleepable_async_event_cb(good, event), kq_return_ok},
            {kq_hca_query(good, &attributes), kq_return_ok},
            {kq_hca_close(good), kq_return_ok},
        };
        for (size_t i = 0; i < std::size(results); ++i) EXPECT_EQ(results[i].first, results[i].second) << "call " << i;
        EXPECT_EQ(hca, good);
        EXPECT_EQ(attributes.port_num, 2);
        EXPECT_EQ(none, 0);
        EXPECT_EQ(world.hca.listener, nullptr);
    });
}

// The simulation explores other orders only where a call lets other tasks run. Returns true if another task can run
// during the call.
bool others_may_run_in(void (*prepare)(), void (*call)(), void (*clean_up)())
{
    exec::systematic_schedule order(1);
    bool may_run = false;
    do {
        machine_with_fake world({.order = &order});
        world.run(prepare);
        bool is_inside = false;
        world.at(0, "caller", [&] {
            is_inside = true;
            call();
            is_inside = false;
        });
        world.at(0, "other", [&] { may_run |= is_inside; });
        order.explore(true);
        world.sim->settle();
        order.explore(false);
        world.finish();
        world.run(clean_up);
    } while (order.next());
    return may_run;
}

TEST(calls_of_the_kernel_and_the_stack, let_other_tasks_run)
{
    static timing_t timer;
    static semaphore sem;
    static spinlock_t lock;
    static wait_queue_head_t queue;
    static gsi_client* client;
    static gsi_dtgrm_t* datagram;
    static char byte = 0;
    const auto prepare = [] {
        init_timing(&timer);
        timer.function = [](unsigned long) {};
        sema_init(&sem, 1);
        spin_lock_init(&lock);
        init_waitqueue_head(&queue);
        client = new gsi_client(4, 1);
        datagram = client->make();
    };
    const std::tuple<const char*, bool, void (*)()> calls[] = {
        {"nothing", false, [] {}},
        {"get_jiffies", false, [] { get_jiffies(); }},
        {"kmalloc atomic", false, [] { kfree(kmalloc(1, GFP_ATOMIC)); }},
        {"kmalloc", true, [] { kfree(kmalloc(1, GFP_KERNEL)); }},
        {"copy_from_user", true, [] { copy_from_user(&byte, &byte, 1); }},
        {"down", true, [] { down(&sem); }},
        {"down_interruptible", true, [] { down_interruptible(&sem); }},
        {"up", true, [] { up(&sem); }},
        {"spin_lock", true, [] { spin_lock_irqsave(&lock); }},
        {"wake_up", true, [] { wake_up_interruptible(&queue); }},
        {"add_timing", true, [] { add_timing(&timer); }},
        {"del_timing_sync", true, [] { del_timing_sync(&timer); }},
        {"pool_get", true, [] { gsi_dtgrm_pool_put(client->make()); }},
        {"pool_put", true, [] { gsi_dtgrm_pool_put(std::exchange(datagram, nullptr)); }},
        {"post", true, [] { gsi_post_send_dtgrm(client->classes[0], std::exchange(datagram, nullptr), nullptr); }},
        {"list_hcas", true,
         [] {
             kq_hca_name name;
             kq_list_hcas(&name, 1);
         }},
    };
    for (const auto& [name, others_may_run, call] : calls)
        EXPECT_EQ(others_may_run_in(prepare, call,
                                    [] {
                                        del_timing_sync(&timer);
                                        if (datagram) gsi_dtgrm_pool_put(datagram);
                                        client->close();
                                        delete client;
                                    }),
                  others_may_run)
            << name;
}

TEST(service_tasks, end_with_their_machine)
{
    const std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    plugged_fake fake;
    {
        kernel::machine host(*sim, "node1");
        host.plug(fake.hca);
        host.enter("test", [&] { stack::boot(host); });
        EXPECT_EQ(sim->tasks().size(), 4u);
    }
    EXPECT_EQ(sim->tasks().size(), 0u);
}

TEST(liveness, names_the_tasks_that_hang_and_no_others)
{
    machine_with_fake world;
    stack::liveness liveness(world.host);
    const auto silent = [&](bool runs_between) {
        liveness.ask();
        if (runs_between) world.settle();
        std::vector<std::string> names = liveness.silent();
        std::ranges::sort(names);
        return names;
    };
    EXPECT_THAT(silent(true), ElementsAre());
    world.run([&] { stack::boot(world.host); });
    EXPECT_EQ(world.host.get<stack::gsi>().adapters().size(), 1u);
    EXPECT_THAT(silent(true), ElementsAre());
    EXPECT_THAT(silent(false), ElementsAre("GSI completion of mthca0", "mthca0 events", "sleeping timers", "timer"));

    // The fabric's task runs the completion context. A callback spins for a lock there.
    spinlock_t lock;
    spin_lock_init(&lock);
    gsi_client* client = nullptr;
    world.run([&] {
        client = new gsi_client(4, 1);
        client->action = [&](gsi_dtgrm_t*) { spin_unlock_irqrestore(&lock, spin_lock_irqsave(&lock)); };
        spin_lock_irqsave(&lock);
    });
    world.at(0, "fabric", [&] {
        client->post();
        world.hca.listener->may_complete(true);
    });
    world.settle();
    EXPECT_THAT(silent(true), ElementsAre("GSI completion of mthca0"));
    world.run([&] { spin_unlock_irqrestore(&lock, 1); });
    world.finish();
    EXPECT_THAT(silent(true), ElementsAre());
    world.run([&] {
        client->close();
        delete client;
    });
}

} // namespace
