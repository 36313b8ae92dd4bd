// Reverse resolution through UCM: one completion each, whatever the provider does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/peers/ucm-exports.h"
#include "tests/peers/peer-world.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

// A provider that keeps the callbacks it owes, so that a test makes them when it likes.
struct scripted_provider {
    struct owed_callback {
        kq_gid_t gid;
        ats_rarp_reply_fn_t callback;
        void* context;

        void make(ibat_stat_t status) const
        {
            exec::atomic_section section("completion");
            ibat_arp_data_t record{};
            record.mask = IBAT_MASK_GID | IBAT_MASK_DST_IP;
            record.gid = gid;
            record.dst_ip = ip_a;
            callback(status, status == ibat_stat_timeout ? nullptr : &record, context);
        }
    };
    ibat_stat_t result = ibat_stat_pending;
    unsigned long takes_ticks = 0;
    std::function<void(const owed_callback&)> before_return;
    std::vector<owed_callback> owed;
    int running = 0;

    static ibat_stat_t send_rarp(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t callback, void* context, void* self)
    {
        auto* it = static_cast<scripted_provider*>(self);
        ++it->running;
        EXPECT_TRUE(arp_data->mask & IBAT_MASK_GID);
        const owed_callback mine{arp_data->gid, callback, context};
        it->owed.push_back(mine);
        if (it->takes_ticks) schedule_timeout_uninterruptible(it->takes_ticks);
        if (it->before_return) it->before_return(mine);
        if (it->result == ibat_stat_ok) {
            arp_data->mask |= IBAT_MASK_DST_IP;
            arp_data->dst_ip = ip_a;
        }
        --it->running;
        return it->result;
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

    ibat_stat_t ask(uint64_t gid_number, asker& who)
    {
        ibat_stat_t status{};
        run([&] {
            record = {};
            record.gid = gid_of(gid_number); // as callers like it: the GID lies in the record
            status = get_ip(&record.gid, &record, asker::called_back, &who);
        });
        return status;
    }

    void make_owed(size_t index, ibat_stat_t status)
    {
        run([&] { provider.owed.at(index).make(status); });
    }

    ucm_counters_t counters()
    {
        ucm_counters_t now{};
        run([&] { read_counters(&now); });
        return now;
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

TEST(ucm, result_and_callback_of_the_provider_settle_a_request_once_in_every_order)
{
    constexpr ibat_stat_t none = ibat_stat_t(1); // no such callback
    struct {
        ibat_stat_t result;
        ibat_stat_t before; // a callback before send_rarp returns
        ibat_stat_t after;  // and one later
        ibat_stat_t returned;
        ibat_stat_t told;
        uint64_t swallowed;
    } const cases[] = {
        {ibat_stat_ok, none, none, ibat_stat_ok, none, 0},
        {ibat_stat_pending, none, ibat_stat_ok, ibat_stat_pending, ibat_stat_ok, 0},
        {ibat_stat_pending, none, ibat_stat_not_found, ibat_stat_pending, ibat_stat_not_found, 0},
        {ibat_stat_pending, none, ibat_stat_timeout, ibat_stat_pending, ibat_stat_timeout, 0},
        {ibat_stat_pending, ibat_stat_ok, none, ibat_stat_pending, ibat_stat_ok, 0},
        {ibat_stat_pending, ibat_stat_ok, ibat_stat_ok, ibat_stat_pending, ibat_stat_ok, 1}, // one too many
        {ibat_stat_error, none, none, ibat_stat_error, none, 0},
        {ibat_stat_error, none, ibat_stat_timeout, ibat_stat_error, none, 1},
        // The request timed out while its query was still waiting to be sent, which then failed.
        {ibat_stat_error, ibat_stat_timeout, none, ibat_stat_pending, ibat_stat_timeout, 0},
        {ibat_stat_not_found, none, none, ibat_stat_not_found, none, 0},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &each - cases);
        asker who;
        ucm_world world;
        world.provider.result = each.result;
        if (each.before != none) world.provider.before_return = [&](const auto& owed) { owed.make(each.before); };
        EXPECT_EQ(world.ask(1, who), each.returned);
        if (each.after != none) world.make_owed(0, each.after);
        if (each.told == none) {
            EXPECT_THAT(who.replies, IsEmpty());
        } else {
            ASSERT_EQ(who.replies.size(), 1u);
            EXPECT_EQ(who.replies[0].status, each.told);
            EXPECT_EQ(who.replies[0].record.gid, gid_of(1));
        }
        EXPECT_EQ(world.record.dst_ip, each.returned == ibat_stat_ok ? ip_a : 0);
        if (each.told != none) {
            EXPECT_EQ(who.replies[0].record.dst_ip, each.told == ibat_stat_timeout ? 0 : ip_a);
        }
        EXPECT_EQ(world.counters().swallowed, each.swallowed);
        EXPECT_EQ(world.counters().pending, 0u);
        EXPECT_EQ(world.host.memory.blocks(), 1u); // the index by number; no request is left
    }
}

TEST(ucm, detach_waits_for_a_running_call_and_ends_what_is_outstanding_once)
{
    asker outstanding, calling, failing, late;
    ucm_world world;
    world.ask(1, outstanding);
    world.provider.takes_ticks = 300;
    exec::task& slow = world.host.start("slow", [&] {
        const kq_gid_t gid = gid_of(2);
        ibat_arp_data_t record{};
        EXPECT_EQ(world.get_ip(&gid, &record, asker::called_back, &calling), ibat_stat_pending);
    });
    world.until(100);
    world.run([&] {
        EXPECT_EQ(world.detach(nullptr), ucm_stat_error);
        EXPECT_EQ(world.detach(world.handle), ucm_stat_ok);
        EXPECT_EQ(get_jiffies(), 300u);
        EXPECT_EQ(world.provider.running, 0);
        EXPECT_EQ(world.detach(world.handle), ucm_stat_error); // stale
    });
    world.sim->join(slow);
    EXPECT_EQ(world.ask(3, late), ibat_stat_error);
    EXPECT_EQ(world.provider.owed.size(), 2u);
    world.make_owed(0, ibat_stat_ok); // the provider's timer was still running
    for (const asker* who : {&outstanding, &calling}) {
        ASSERT_EQ(who->replies.size(), 1u);
        EXPECT_EQ(who->replies[0].status, ibat_stat_error);
    }
    EXPECT_EQ(outstanding.replies[0].record.gid, gid_of(1));
    EXPECT_THAT(late.replies, IsEmpty());
}

TEST(ucm, callback_may_ask_again_and_a_withdrawn_asker_hears_nothing)
{
    asker first, second, leaves;
    ucm_world world;
    first.then = [&] {
        const kq_gid_t gid = gid_of(2);
        EXPECT_EQ(world.get_ip(&gid, &world.record, asker::called_back, &second), ibat_stat_pending);
    };
    world.ask(1, first);
    world.make_owed(0, ibat_stat_not_found);
    EXPECT_EQ(world.provider.owed.size(), 2u);
    world.ask(3, leaves);
    world.run([&] {
        EXPECT_EQ(world.cancel(asker::called_back, &leaves), 1);
        EXPECT_EQ(world.cancel(asker::called_back, &leaves), 0);
    });
    world.make_owed(2, ibat_stat_ok);
    EXPECT_THAT(leaves.replies, IsEmpty());
    EXPECT_TRUE(world.unload());
    EXPECT_EQ(second.replies.size(), 1u);
    EXPECT_EQ(world.host.memory.blocks(), 0u);
    EXPECT_THAT(world.host.inter_modules.names(), IsEmpty());
}

} // namespace
