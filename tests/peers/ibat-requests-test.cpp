// The requests that IBAT makes for its callers: when it sends and repeats them, and how it calls back.
#include "tests/peers/ibat-world.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

// The ticks and statuses of an asker's callbacks.
std::vector<std::pair<uint64_t, ibat_stat_t>> callbacks_of(const asker& caller)
{
    std::vector<std::pair<uint64_t, ibat_stat_t>> callbacks;
    for (const auto& reply : caller.replies) callbacks.emplace_back(reply.tick, reply.status);
    return callbacks;
}

TEST(ibat_requests, unanswered_request_is_repeated_and_times_out_at_the_exact_tick_for_every_asker)
{
    asker first, second, other;
    ibat_world world;
    world.run_until(7);
    EXPECT_EQ(world.ask(ip_a, first), ibat_stat_pending);
    world.run_until(100);
    EXPECT_EQ(world.ask(ip_b, other), ibat_stat_pending);
    world.run_until(700);
    EXPECT_EQ(world.ask(ip_a, second), ibat_stat_pending);
    world.run_until(1'506);
    EXPECT_THAT(first.replies, IsEmpty());
    world.run_until(5'000);
    EXPECT_THAT(callbacks_of(first), ElementsAre(Pair(1'507, ibat_stat_timeout)));
    EXPECT_THAT(callbacks_of(second), ElementsAre(Pair(1'507, ibat_stat_timeout)));
    EXPECT_THAT(callbacks_of(other), ElementsAre(Pair(1'600, ibat_stat_timeout)));
    EXPECT_THAT(world.resolver.attempts, ElementsAre(Pair(7, ip_a), Pair(100, ip_b), Pair(507, ip_a), Pair(600, ip_b),
                                                     Pair(1'007, ip_a), Pair(1'100, ip_b)));

    world.reply(world.answer(ip_a, gid_of(1))); // too late for these requests; the next one is answered from the cache
    EXPECT_EQ(first.replies.size() + second.replies.size(), 2u);
    EXPECT_EQ(world.ask(ip_a, first), ibat_stat_ok);

    const ibat_counters_t counters = world.counters();
    EXPECT_EQ(counters.requests, 2u);
    EXPECT_EQ(counters.retries, 4u);
    EXPECT_EQ(counters.timeouts, 2u);
    EXPECT_EQ(counters.unsolicited, 1u);
    EXPECT_EQ(counters.lookups, 4u);
    EXPECT_EQ(counters.hits, 1u);
    EXPECT_EQ(counters.misses, 3u);
    EXPECT_EQ(counters.pending, 0u);
}

TEST(ibat_requests, refused_attempts_are_repeated_and_the_request_fails_after_the_last_one)
{
    struct {
        const char* parameters;
        std::vector<ibat_stat_t> results; // result of each attempt, in order
        uint64_t callback_tick;
        ibat_stat_t callback_status;
    } const cases[] = {
        {"", {ibat_stat_error, ibat_stat_error, ibat_stat_error}, 1'000, ibat_stat_error},
        {"", {ibat_stat_error, ibat_stat_error, ibat_stat_ok}, 1'500, ibat_stat_timeout},
        {"", {ibat_stat_ok, ibat_stat_error, ibat_stat_error}, 1'500, ibat_stat_timeout},
        {"ibat_retries=1", {ibat_stat_error}, 0, ibat_stat_error},
        {"ibat_retries=2 ibat_retry_ticks=30", {ibat_stat_error, ibat_stat_ok}, 60, ibat_stat_timeout},
    };
    for (const auto& each : cases) {
        asker caller;
        ibat_world world(each.parameters);
        size_t attempt = 0;
        world.resolver.action = [&](uint32_t) { world.resolver.result = each.results.at(attempt++); };
        EXPECT_EQ(world.ask(ip_a, caller), ibat_stat_pending);
        world.run_until(10'000);
        EXPECT_THAT(callbacks_of(caller), ElementsAre(Pair(each.callback_tick, each.callback_status)));
        EXPECT_EQ(attempt, each.results.size());
    }
}

TEST(ibat_requests, callback_may_ask_again_whatever_ended_the_request)
{
    asker first, second, third;
    ibat_world world("ibat_retries=1");
    first.action = [&] {
        EXPECT_EQ(world.get_ib_data(ip_b, &world.record, asker::reply_callback, &second), ibat_stat_pending);
    };
    second.action = [&] {
        EXPECT_EQ(world.get_ib_data(ip_c, &world.record, asker::reply_callback, &third), ibat_stat_pending);
    };
    world.ask(ip_a, first);
    world.reply(world.answer(ip_a, gid_of(1))); // in a context that may not sleep
    world.run_until(10'000);
    EXPECT_THAT(callbacks_of(first), ElementsAre(Pair(0, ibat_stat_ok)));
    EXPECT_THAT(callbacks_of(second), ElementsAre(Pair(500, ibat_stat_timeout)));
    EXPECT_THAT(callbacks_of(third), ElementsAre(Pair(1'000, ibat_stat_timeout)));
}

TEST(ibat_requests, refresh_asks_in_spite_of_a_cache_entry_and_the_answer_replaces_it)
{
    asker first, second;
    ibat_world world;
    const auto refresh = [&](asker& caller) {
        world.run([&] { EXPECT_EQ(world.refresh(ip_a, asker::reply_callback, &caller), ibat_stat_pending); });
    };
    world.reply(world.answer(ip_a, gid_of(1)));
    refresh(first);
    refresh(second);
    EXPECT_THAT(world.resolver.attempts, ElementsAre(Pair(0, ip_a))); // one request for both askers
    world.reply(world.answer(ip_a, gid_of(2)));
    EXPECT_THAT(callbacks_of(first), ElementsAre(Pair(0, ibat_stat_ok)));
    EXPECT_THAT(callbacks_of(second), ElementsAre(Pair(0, ibat_stat_ok)));
    EXPECT_EQ(first.replies[0].record.gid, gid_of(2));
    EXPECT_EQ(world.entry_text(ip_a), "2");

    refresh(first);
    world.reply(world.absence(ip_a));
    EXPECT_EQ(callbacks_of(first).back(), std::pair(uint64_t{0}, ibat_stat_not_found));
    refresh(first);
    world.run_until(5'000);
    EXPECT_EQ(callbacks_of(first).back(), std::pair(uint64_t{1'500}, ibat_stat_timeout));
    world.run([&] {
        EXPECT_EQ(world.detach(world.handle), ibat_stat_ok);
        EXPECT_EQ(world.refresh(ip_a, asker::reply_callback, &first), ibat_stat_error);
    });
}

TEST(ibat_requests, detach_waits_for_a_running_send_and_ends_every_request_once)
{
    asker first, second, late;
    ibat_world world;
    EXPECT_EQ(world.ask(ip_a, first), ibat_stat_pending);
    world.resolver.duration_ticks = 300;
    exec::task& slow = world.host.start("slow", [&] {
        ibat_arp_data_t record{};
        EXPECT_EQ(world.get_ib_data(ip_b, &record, asker::reply_callback, &second), ibat_stat_pending);
    });
    world.run_until(100);
    world.run([&] {
        void* handle;
        EXPECT_EQ(world.attach(nullptr, recording_resolver::send_arp, nullptr, &handle), ibat_stat_error);
        EXPECT_EQ(world.detach(nullptr), ibat_stat_error);
        EXPECT_EQ(world.detach(world.handle), ibat_stat_ok);
        EXPECT_EQ(get_jiffies(), 300u);
        EXPECT_EQ(world.resolver.call_count, 0);
        EXPECT_EQ(world.detach(world.handle), ibat_stat_error); // the handle is no longer valid
    });
    world.sim->join(slow);
    EXPECT_EQ(world.ask(ip_c, late), ibat_stat_error);
    world.run_until(10'000);
    EXPECT_THAT(callbacks_of(first), ElementsAre(Pair(100, ibat_stat_error)));
    EXPECT_THAT(callbacks_of(second), ElementsAre(Pair(100, ibat_stat_error)));
    EXPECT_THAT(late.replies, IsEmpty());
    EXPECT_EQ(world.resolver.attempts.size(), 2u);

    world.resolver.duration_ticks = 0;
    world.run([&] {
        EXPECT_EQ(world.attach(nullptr, recording_resolver::send_arp, &world.resolver, &world.handle), ibat_stat_ok);
    });
    EXPECT_EQ(world.ask(ip_c, late), ibat_stat_pending);
    EXPECT_EQ(world.resolver.attempts.size(), 3u);
}

TEST(ibat_requests, cancel_prevents_callbacks_and_waits_for_a_running_one)
{
    asker leaves, stays, slow;
    ibat_world world;
    world.ask(ip_a, leaves);
    world.ask(ip_a, stays);
    world.ask(ip_b, leaves);
    world.run([&] { EXPECT_EQ(world.cancel(asker::reply_callback, &leaves), 2); });
    EXPECT_EQ(world.counters().pending, 1u); // no caller waits for ip_b any more
    world.reply(world.answer(ip_a, gid_of(1)));
    EXPECT_EQ(stays.replies.size(), 1u);

    slow.action = [] { schedule_timeout_uninterruptible(200); };
    world.ask(ip_c, slow);
    world.reply(world.answer(ip_c, gid_of(3)));
    ASSERT_EQ(slow.replies.size(), 1u);
    world.run_until(50);
    world.run([&] {
        EXPECT_EQ(world.cancel(asker::reply_callback, &stays), 0);
        EXPECT_EQ(get_jiffies(), 50u);
        EXPECT_EQ(world.cancel(asker::reply_callback, &slow), 0);
        EXPECT_EQ(get_jiffies(), 200u);
    });
    world.run_until(10'000);
    EXPECT_THAT(leaves.replies, IsEmpty());
    EXPECT_EQ(world.resolver.attempts.size(), 3u);
}

TEST(ibat_requests, unloading_ends_pending_requests_and_leaves_nothing_behind)
{
    asker first;
    ibat_world world;
    world.reply(world.own(ip_b, gid_of(2)));
    world.reply(world.answer(ip_c, gid_of(3)));
    world.ask(ip_a, first);
    first.action = [&] {
        EXPECT_EQ(world.get_ib_data(ip_a, &world.record, asker::reply_callback, &first), ibat_stat_error);
    };
    EXPECT_TRUE(world.unload());
    EXPECT_EQ(first.replies.size(), 1u);
    EXPECT_EQ(first.replies.at(0).status, ibat_stat_error);
    EXPECT_EQ(world.host.memory.blocks(), 0u) << testing::PrintToString(world.host.memory.leaks());
    EXPECT_THAT(world.host.inter_modules.names(), IsEmpty());
    world.run_until(10'000); // if a timer is left, it calls into the unloaded image
}

TEST(ibat_requests, any_allocation_may_fail_without_losing_or_doubling_a_callback)
{
    for (uint64_t n = 1;; ++n) {
        asker first, second;
        ibat_world world;
        world.host.faults.fail_nth(n);
        const ibat_stat_t first_status = world.ask(ip_a, first);
        const ibat_stat_t second_status = world.ask(ip_a, second);
        world.reply(world.answer(ip_a, gid_of(1)));
        world.reply(world.answer(ip_b, gid_of(2)));
        const bool has_failed = !world.host.faults.failed_call().empty();
        world.host.faults.disarm();
        for (const auto& [status, caller] : {std::pair{first_status, &first}, std::pair{second_status, &second}}) {
            EXPECT_TRUE(status == ibat_stat_pending || status == ibat_stat_error);
            EXPECT_EQ(caller->replies.size(), status == ibat_stat_pending ? 1u : 0u) << n;
        }
        EXPECT_TRUE(world.unload());
        EXPECT_EQ(world.host.memory.blocks(), 0u);
        if (!has_failed) break;
        ASSERT_LT(n, 100u);
    }
}

} // namespace
