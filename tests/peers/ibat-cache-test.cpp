// The cache of IBAT: its entries and their lifetimes.
#include "tests/peers/ibat-world.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(ibat_cache, learned_mapping_is_used_in_both_directions_until_it_expires)
{
    for (uint64_t start : {uint64_t{0}, uint64_t{0xFFFFFFFF} - 9'000}) {
        asker first, second, third;
        ibat_world world("ibat_lifetime_seconds=10", {.start_tick = start});
        EXPECT_EQ(world.ask(ip_a, first), ibat_stat_pending);
        EXPECT_THAT(world.resolver.attempts, ElementsAre(Pair(start, ip_a)));

        world.run_until(start + 40);
        EXPECT_EQ(world.reply(world.answer(ip_a, gid_of(1), 2)), ibat_stat_ok);
        ASSERT_EQ(first.replies.size(), 1u);
        EXPECT_EQ(first.replies[0].status, ibat_stat_ok);
        EXPECT_EQ(first.replies[0].tick, start + 40);
        EXPECT_EQ(first.replies[0].record.gid, gid_of(1));
        EXPECT_EQ(first.replies[0].record.dst_ip, ip_a);

        world.run_until(start + 40 + 9'999);
        EXPECT_EQ(world.ask(ip_a, second), ibat_stat_ok);
        EXPECT_EQ(world.record.gid, gid_of(1));
        EXPECT_EQ(world.record.local_port_num, 2u);
        EXPECT_EQ(world.address_of(gid_of(1)), ip_a);
        EXPECT_EQ(world.resolver.attempts.size(), 1u);

        world.run_until(start + 40 + 10'000);
        EXPECT_EQ(world.entry_text(ip_a), "unknown");
        EXPECT_EQ(world.address_of(gid_of(1)), 0u);
        EXPECT_EQ(world.ask(ip_a, third), ibat_stat_pending);
        EXPECT_EQ(world.resolver.attempts.size(), 2u);
        EXPECT_THAT(second.replies, IsEmpty());
    }
}

TEST(ibat_cache, negative_answer_is_cached_briefly_and_is_never_a_mapping)
{
    asker first, second;
    ibat_world world;
    world.ask(ip_a, first);
    // The absent address may be the host's own. The reply then has the mark of an own address, and no GID.
    world.reply(world.own(ip_a, kq_gid_t{}));
    ASSERT_EQ(first.replies.size(), 1u);
    EXPECT_EQ(first.replies[0].status, ibat_stat_not_found);
    EXPECT_EQ(first.replies[0].record.dst_ip, ip_a);
    EXPECT_EQ(world.address_of(kq_gid_t{}), 0u);

    world.run_until(1'999);
    EXPECT_EQ(world.ask(ip_a, second), ibat_stat_not_found);
    EXPECT_EQ(world.resolver.attempts.size(), 1u);
    world.run_until(2'000);
    EXPECT_EQ(world.ask(ip_a, second), ibat_stat_pending);
    EXPECT_EQ(world.resolver.attempts.size(), 2u);
    world.reply(world.answer(ip_a, gid_of(1)));
    EXPECT_EQ(world.entry_text(ip_a), "1");
    world.reply(world.absence(ip_a)); // the host has left
    EXPECT_EQ(world.entry_text(ip_a), "none");
    EXPECT_EQ(world.address_of(gid_of(1)), 0u);

    ibat_world forgetful("ibat_negative_seconds=0");
    forgetful.reply(forgetful.answer(ip_a, gid_of(1)));
    forgetful.reply(forgetful.absence(ip_a));
    EXPECT_EQ(forgetful.entry_text(ip_a), "unknown");
}

TEST(ibat_cache, full_cache_drops_negative_entries_then_the_oldest_but_not_the_own_mapping)
{
    ibat_world world("ibat_capacity=3");
    world.reply(world.own(0x6300000A, gid_of(99)));
    world.reply(world.answer(ip_a, gid_of(1)));
    world.reply(world.absence(ip_b));
    world.reply(world.answer(ip_c, gid_of(3)));
    EXPECT_EQ(world.entry_text(ip_b), "unknown");
    world.reply(world.answer(ip_a, gid_of(1))); // newer now, so c is the oldest
    world.reply(world.answer(ip_d, gid_of(4)));
    EXPECT_EQ(world.entry_text(ip_c), "unknown");
    EXPECT_EQ(world.address_of(gid_of(3)), 0u);
    EXPECT_EQ(world.entry_text(ip_a), "1");
    EXPECT_EQ(world.entry_text(ip_d), "4");
    EXPECT_EQ(world.entry_text(0x6300000A), "99 own");
    EXPECT_EQ(world.counters().entries, 3u);
}

TEST(ibat_cache, newer_answer_moves_an_address_or_a_gid)
{
    ibat_world world;
    world.reply(world.answer(ip_a, gid_of(1)));
    world.reply(world.answer(ip_b, gid_of(2)));
    world.reply(world.answer(ip_a, gid_of(2))); // the port of b now has the address of a
    EXPECT_EQ(world.entry_text(ip_a), "2");
    EXPECT_EQ(world.entry_text(ip_b), "unknown");
    EXPECT_EQ(world.address_of(gid_of(1)), 0u);
    EXPECT_EQ(world.address_of(gid_of(2)), ip_a);
    EXPECT_EQ(world.counters().entries, 1u);
}

TEST(ibat_cache, own_mapping_stays_until_the_host_changes_it)
{
    ibat_world world("ibat_lifetime_seconds=10");
    world.reply(world.own(ip_a, gid_of(1), 1));
    world.run_until(60'000);
    EXPECT_EQ(world.entry_text(ip_a), "1 own");
    world.run([&] { world.flush(); });
    world.reply(world.absence(ip_a));
    world.reply(world.answer(ip_a, gid_of(9))); // another host registers the address
    world.reply(world.answer(ip_b, gid_of(1))); // an old record has the GID
    EXPECT_EQ(world.entry_text(ip_a), "1 own");
    EXPECT_EQ(world.address_of(gid_of(1)), ip_a);
    EXPECT_EQ(world.entry_text(ip_b), "unknown");
    EXPECT_EQ(world.counters().conflicts, 2u);

    world.reply(world.own(ip_b, gid_of(1), 1)); // the address has changed
    EXPECT_EQ(world.entry_text(ip_a), "unknown");
    EXPECT_EQ(world.entry_text(ip_b), "1 own");
    world.reply(world.own(ip_b, gid_of(2), 2)); // fail-over to the second port
    EXPECT_EQ(world.entry_text(ip_b), "2 own");
    EXPECT_EQ(world.address_of(gid_of(1)), 0u);
    // The first port is active again, with another address. The entry of the second port is now like an entry of
    // another host.
    world.reply(world.own(ip_c, gid_of(1), 1));
    EXPECT_EQ(world.entry_text(ip_c), "1 own");
    EXPECT_EQ(world.entry_text(ip_b), "2");
    world.run_until(70'000);
    EXPECT_EQ(world.entry_text(ip_b), "unknown");

    ibat_arp_data_t addressless = world.own(0, gid_of(7), 1); // the port no longer has an address
    EXPECT_EQ(world.reply(addressless), ibat_stat_error);
    EXPECT_EQ(world.entry_text(ip_c), "unknown");
}

TEST(ibat_cache, own_mapping_expires_after_a_detach_and_is_freed_without_a_lookup)
{
    ibat_world world("ibat_lifetime_seconds=10");
    const size_t blocks_before = world.host.memory.blocks();
    world.reply(world.own(ip_a, gid_of(1)));
    world.run_until(30'000);
    world.run([&] { EXPECT_EQ(world.detach(world.handle), ibat_stat_ok); });
    EXPECT_EQ(world.entry_text(ip_a), "1");
    world.run_until(35'000);
    world.reply(world.own(ip_b, gid_of(2))); // arrives after the resolver has detached
    EXPECT_EQ(world.entry_text(ip_b), "2");
    world.run_until(40'000);
    EXPECT_EQ(world.entry_text(ip_a), "unknown");
    for (uint32_t i = 1; i <= 500; ++i) world.reply(world.answer(i, gid_of(i)));
    world.run_until(60'001);
    EXPECT_EQ(world.counters().entries, 0u);
    EXPECT_EQ(world.host.memory.blocks(), blocks_before);
}

TEST(ibat_cache, lookup_by_gid_reads_the_gid_before_it_writes_the_record_and_leaves_it_alone_on_a_miss)
{
    ibat_world world;
    world.reply(world.answer(ip_a, gid_of(1), 2));
    world.run([&] {
        exec::atomic_section section("completion");
        ibat_arp_data_t record{};
        int own_context = 0;
        record.context = &own_context;
        record.gid = gid_of(1);
        EXPECT_EQ(world.look_up_gid(&record.gid, &record), ibat_stat_ok);
        EXPECT_EQ(record.dst_ip, ip_a);
        EXPECT_EQ(record.gid, gid_of(1));
        EXPECT_EQ(record.mask, IBAT_MASK_DST_IP | IBAT_MASK_GID | IBAT_MASK_LOCAL_PORT_NUM);
        EXPECT_EQ(record.context, &own_context);
        record = {};
        record.gid = gid_of(2);
        EXPECT_NE(world.look_up_gid(&record.gid, &record), ibat_stat_ok);
        EXPECT_EQ(record.gid, gid_of(2));
        EXPECT_EQ(record.mask, 0u);
    });
}

TEST(ibat_cache, unusable_replies_change_nothing)
{
    asker caller;
    ibat_world world;
    world.ask(ip_a, caller);
    std::vector<ibat_arp_data_t> replies(6, world.answer(ip_a, gid_of(1)));
    replies[0].arp_operation = 1;
    replies[1].mask = 0;
    replies[2].mask &= ~IBAT_MASK_SRC_IP;
    replies[3].mask &= ~IBAT_MASK_DST_IP;
    replies[4].mask &= ~IBAT_MASK_GID;
    replies[5].src_ip = 0; // a GID lookup without a record, or a host without an address
    for (const auto& reply : replies) EXPECT_EQ(world.reply(reply), ibat_stat_error);
    EXPECT_THAT(caller.replies, IsEmpty());
    const ibat_counters_t counters = world.counters();
    EXPECT_EQ(counters.entries, 0u);
    EXPECT_EQ(counters.ignored, replies.size());
    EXPECT_EQ(counters.pending, 1u);
}

TEST(ibat_module, parameters_out_of_range_are_refused_with_the_range)
{
    const std::pair<std::string, std::string> cases[] = {
        {"ibat_lifetime_seconds=0", "choose 1 to 31536000"}, {"ibat_negative_seconds=-1", "choose 0 to 3600"},
        {"ibat_retry_ticks=0", "choose 1 to 3600000"},       {"ibat_retries=0", "choose 1 to 1000"},
        {"ibat_capacity=0", "choose 1 to 16777216"},         {"ibat_path_seconds=86401", "choose 1 to 86400"},
    };
    for (const auto& [wrong, range] : cases) {
        ibat_world world(wrong);
        EXPECT_FALSE(world.loaded) << wrong;
        EXPECT_EQ(world.host.log.raw(), "ibat: " + wrong + " is out of range, " + range + "\n");
        EXPECT_EQ(world.host.memory.blocks(), 0u);
    }
}

} // namespace
