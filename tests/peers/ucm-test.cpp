// UCM finds the address of a GID. It asks a provider, which is ats in a real host and a fake here. Every request must
// end once, in whatever order the provider returns and calls back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/peers/ucm-exports.h"
#include "tests/peers/peer-world.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

// A fake provider. It stores the callbacks that it owes to UCM, and the test calls them later.
struct scripted_provider {
    struct owed_callback {
        kq_gid_t gid;
        ats_rarp_reply_fn_t callback;
        void* context;

        void call(ibat_stat_t status) const
        {
            exec::atomic_section section("completion");
            ibat_arp_data_t record{};
            record.mask = IBAT_MASK_GID | IBAT_MASK_DST_IP;
            record.gid = gid;
            record.dst_ip = ip_a;
            callback(status, status == ibat_stat_timeout ? nullptr : &record, context);
        }
    };
    ibat_stat_t result = ibat_stat_pending;                // returned by send_rarp()
    unsigned long duration_ticks = 0;                      // how long send_rarp() sleeps
    std::function<void(const owed_callback&)> last_action; // runs before send_rarp() returns
    std::vector<owed_callback> callbacks;
    int call_count = 0; // calls of send_rarp() that have not returned

    static ibat_stat_t send_rarp(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t callback, void* context, void* self)
    {
        auto* provider = static_cast<scripted_provider*>(self);
        ++provider->call_count;
        EXPECT_TRUE(arp_data->mask & IBAT_MASK_GID);
        const owed_callback new_callback{arp_data->gid, callback, context};
        provider->callbacks.push_back(new_callback);
        if (provider->duration_ticks) schedule_timeout_uninterruptible(provider->duration_ticks);
        if (provider->last_action) provider->last_action(new_callback);
        if (provider->result == ibat_stat_ok) {
            arp_data->mask |= IBAT_MASK_DST_IP;
            arp_data->dst_ip = ip_a;
        }
        --provider->call_count;
        return provider->result;
    }
};

class ucm_world : public peer_world
{
  public:
    ucm_world() : peer_world("ucm")
    {
        if (!loaded) exec::panic("%s", loaded.error().text.c_str());
        attach = published<ucm_rarp_attach_fn_t>("ucm_rarp_attach_fn");
        detach = published<ucm_rarp_detach_fn_t>("ucm_rarp_detach_fn");
        get_ip = published<ucm_get_ip_fn_t>("ucm_get_ip_fn");
        cancel = published<ucm_cancel_fn_t>("ucm_cancel_fn");
        read_counters = published<ucm_counters_fn_t>("ucm_counters_fn");
        run([&] { EXPECT_EQ(attach(scripted_provider::send_rarp, &provider, &handle), ucm_stat_ok); });
    }

    ibat_stat_t ask(uint64_t gid_number, asker& caller)
    {
        ibat_stat_t status{};
        run([&] {
            record = {};
            record.gid = gid_of(gid_number); // a caller may pass a GID that is part of its own record
            status = get_ip(&record.gid, &record, asker::reply_callback, &caller);
        });
        return status;
    }

    void call_back(size_t index, ibat_stat_t status)
    {
        run([&] { provider.callbacks.at(index).call(status); });
    }

    ucm_counters_t counters()
    {
        ucm_counters_t values{};
        run([&] { read_counters(&values); });
        return values;
    }

    scripted_provider provider;
    void* handle = nullptr;
    ibat_arp_data_t record{};

    ucm_rarp_attach_fn_t attach;
    ucm_rarp_detach_fn_t detach;
    ucm_get_ip_fn_t get_ip;
    ucm_cancel_fn_t cancel;
    ucm_counters_fn_t read_counters;
};

TEST(ucm, result_and_callback_of_the_provider_end_a_request_once_in_every_order)
{
    constexpr ibat_stat_t none = ibat_stat_t(1); // means that there is no such callback
    struct {
        ibat_stat_t result;
        ibat_stat_t early_callback; // before send_rarp returns
        ibat_stat_t late_callback;  // after send_rarp returns
        ibat_stat_t status;         // the asker's result at once
        ibat_stat_t reply;          // the asker's result by callback
        uint64_t swallowed_count;   // callbacks that UCM must ignore
    } const cases[] = {
        {ibat_stat_ok, none, none, ibat_stat_ok, none, 0},
        {ibat_stat_pending, none, ibat_stat_ok, ibat_stat_pending, ibat_stat_ok, 0},
        {ibat_stat_pending, none, ibat_stat_not_found, ibat_stat_pending, ibat_stat_not_found, 0},
        {ibat_stat_pending, none, ibat_stat_timeout, ibat_stat_pending, ibat_stat_timeout, 0},
        {ibat_stat_pending, ibat_stat_ok, none, ibat_stat_pending, ibat_stat_ok, 0},
        {ibat_stat_pending, ibat_stat_ok, ibat_stat_ok, ibat_stat_pending, ibat_stat_ok, 1}, // a second callback
        {ibat_stat_error, none, none, ibat_stat_error, none, 0},
        {ibat_stat_error, none, ibat_stat_timeout, ibat_stat_error, none, 1},
        // The request times out while send_rarp() still waits, and then the send fails.
        {ibat_stat_error, ibat_stat_timeout, none, ibat_stat_pending, ibat_stat_timeout, 0},
        {ibat_stat_not_found, none, none, ibat_stat_not_found, none, 0},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &each - cases);
        asker caller;
        ucm_world world;
        world.provider.result = each.result;
        if (each.early_callback != none)
            world.provider.last_action = [&](const auto& callback) { callback.call(each.early_callback); };
        EXPECT_EQ(world.ask(1, caller), each.status);
        if (each.late_callback != none) world.call_back(0, each.late_callback);
        if (each.reply == none) {
            EXPECT_THAT(caller.replies, IsEmpty());
        } else {
            ASSERT_EQ(caller.replies.size(), 1u);
            EXPECT_EQ(caller.replies[0].status, each.reply);
            EXPECT_EQ(caller.replies[0].record.gid, gid_of(1));
        }
        EXPECT_EQ(world.record.dst_ip, each.status == ibat_stat_ok ? ip_a : 0);
        if (each.reply != none) {
            EXPECT_EQ(caller.replies[0].record.dst_ip, each.reply == ibat_stat_timeout ? 0 : ip_a);
        }
        const ucm_counters_t counters = world.counters();
        EXPECT_EQ(counters.swallowed, each.swallowed_count);
        EXPECT_EQ(counters.requests, 1u);
        EXPECT_EQ(counters.pending, 0u);
        EXPECT_EQ(counters.answered_at_once, each.status == ibat_stat_ok);
        EXPECT_EQ(counters.failed_at_once, each.status == ibat_stat_error || each.status == ibat_stat_not_found);
        EXPECT_EQ(counters.answers, each.reply == ibat_stat_ok);
        EXPECT_EQ(counters.not_found, each.reply == ibat_stat_not_found);
        EXPECT_EQ(counters.timeouts, each.reply == ibat_stat_timeout);
        EXPECT_EQ(world.host.memory.blocks(), 1u); // the table of requests; every request is freed
    }
}

TEST(ucm, detach_waits_for_a_running_call_and_ends_every_pending_request_once)
{
    asker first, second, late;
    ucm_world world;
    world.ask(1, first);
    world.provider.duration_ticks = 300;
    exec::task& slow = world.host.start("slow", [&] {
        const kq_gid_t gid = gid_of(2);
        ibat_arp_data_t record{};
        EXPECT_EQ(world.get_ip(&gid, &record, asker::reply_callback, &second), ibat_stat_pending);
    });
    world.run_until(100);
    world.run([&] {
        EXPECT_EQ(world.detach(nullptr), ucm_stat_error);
        EXPECT_EQ(world.detach(world.handle), ucm_stat_ok);
        EXPECT_EQ(get_jiffies(), 300u);
        EXPECT_EQ(world.provider.call_count, 0);
        EXPECT_EQ(world.detach(world.handle), ucm_stat_error); // the handle is no longer valid
    });
    world.sim->join(slow);
    EXPECT_EQ(world.ask(3, late), ibat_stat_error);
    EXPECT_EQ(world.provider.callbacks.size(), 2u);
    world.call_back(0, ibat_stat_ok); // a late callback of the provider
    for (const asker* caller : {&first, &second}) {
        ASSERT_EQ(caller->replies.size(), 1u);
        EXPECT_EQ(caller->replies[0].status, ibat_stat_error);
    }
    EXPECT_EQ(first.replies[0].record.gid, gid_of(1));
    EXPECT_THAT(late.replies, IsEmpty());
}

TEST(ucm, callback_may_ask_again_and_a_cancelled_asker_gets_no_callback)
{
    asker first, second, leaves, slow;
    ucm_world world;
    first.action = [&] {
        const kq_gid_t gid = gid_of(2);
        EXPECT_EQ(world.get_ip(&gid, &world.record, asker::reply_callback, &second), ibat_stat_pending);
    };
    world.ask(1, first);
    world.call_back(0, ibat_stat_not_found);
    EXPECT_EQ(world.provider.callbacks.size(), 2u);
    world.ask(3, leaves);
    world.run([&] {
        EXPECT_EQ(world.cancel(asker::reply_callback, &leaves), 1);
        EXPECT_EQ(world.cancel(asker::reply_callback, &leaves), 0);
    });
    world.call_back(2, ibat_stat_ok);
    EXPECT_THAT(leaves.replies, IsEmpty());
    slow.action = [] { schedule_timeout_uninterruptible(200); };
    world.ask(4, slow);
    world.call_back(3, ibat_stat_ok);
    world.run([&] {
        EXPECT_EQ(world.cancel(asker::reply_callback, &slow), 0);
        EXPECT_EQ(get_jiffies(), 200u) << "it waits for a running callback";
    });
    EXPECT_TRUE(world.unload());
    EXPECT_EQ(second.replies.size(), 1u);
    EXPECT_EQ(world.host.memory.blocks(), 0u);
    EXPECT_THAT(world.host.inter_modules.names(), IsEmpty());
}

} // namespace
