#include "host/fabric/embedded/subnet.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>

#include "requests.h"

namespace
{

using namespace embedded;
using fabric::link_state;
using test::recording_listener;
using test::request;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr fabric::address sa_address{.lid = 1};

// Two hosts on a subnet, with their links up. node1 has two ports (LIDs 2 and 3), node2 has one (LID 4).
struct small_world {
    explicit small_world(const subnet_options& options = {}) : net(*sim, options)
    {
        first.listen(&first_listener);
        second.listen(&second_listener);
        for (int port : {1, 2}) EXPECT_TRUE(net.link_up("node1", "mthca0", port));
        EXPECT_TRUE(net.link_up("node2", "mthca0", 1));
        sim->settle();
        first_listener.changes.clear();
        second_listener.changes.clear();
    }
    ~small_world()
    {
        first.listen(nullptr);
        second.listen(nullptr);
    }

    static fabric::gid_bytes gid_of(fabric::hca& hca, int port) { return hca.read_port(port).gids.at(0); }
    fabric::mad_bytes set_first(uint64_t transaction = 1)
    {
        const auto record = test::host_record(gid_of(first, 1), 1);
        return test::bytes_of(request(MAD_METHOD_SET, test::mask_all, record, transaction));
    }
    fabric::mad_bytes get_first(uint64_t transaction = 1)
    {
        const auto record = test::host_record(gid_of(first, 1), 1);
        return test::bytes_of(request(MAD_METHOD_GET, test::mask_gid_lookup, record, transaction));
    }
    void send_numbered(int count)
    {
        for (int i = 0; i < count; ++i) ASSERT_TRUE(first.send(1, {.lid = 4}, get_first(static_cast<uint64_t>(i))));
    }

    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    subnet net;
    fabric::hca& first = *net.add_hca("node1", "mthca0", 2).value();
    fabric::hca& second = *net.add_hca("node2", {}).value();
    recording_listener first_listener, second_listener;
};
struct two_hosts : testing::Test, small_world {
};

TEST_F(two_hosts, a_request_is_answered_on_its_own_path)
{
    ASSERT_TRUE(first.send(2, {.lid = 1, .sl = 3}, set_first()));
    EXPECT_THAT(first_listener.arrivals, IsEmpty()) << "nothing arrives inside a send";
    sim->settle();
    ASSERT_EQ(first_listener.arrivals.size(), 1u);
    const auto& answer = first_listener.arrivals[0];
    EXPECT_EQ(answer.port, 2);
    EXPECT_EQ(answer.status(), 0);
    EXPECT_EQ(answer.source.lid, 1);
    EXPECT_EQ(answer.source.sl, 3);
    EXPECT_EQ(answer.source.qpn, 1u);
    EXPECT_EQ(answer.source.q_key, fabric::qp1_q_key);

    const auto records = net.service_records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].service_name, records::service_name);
    EXPECT_EQ(records[0].service_id, records::service_id);
}

TEST_F(two_hosts, link_and_sm_changes_are_reported_and_read)
{
    EXPECT_EQ(second.read_port(1).state, link_state::active);
    EXPECT_EQ(second.read_port(1).lid, 4);

    ASSERT_TRUE(net.link_down("node2", "mthca0", 1));
    ASSERT_TRUE(net.set_sm(9, 5));
    sim->settle();
    EXPECT_THAT(first_listener.changes, ElementsAre("sm 1 to 9", "sm 2 to 9"));
    EXPECT_THAT(second_listener.changes, ElementsAre("down 1")) << "a port without a link is not told of a new SM";
    EXPECT_EQ(first.read_port(2).sm_lid, 9);
    EXPECT_EQ(first.read_port(2).sm_sl, 5);
    EXPECT_EQ(second.read_port(1).state, link_state::down);
    EXPECT_EQ(second.read_port(1).sm_lid, 1);

    // The SA answers only at its new LID. A port without a link neither sends nor receives.
    ASSERT_TRUE(first.send(1, sa_address, get_first(1)));
    ASSERT_TRUE(first.send(1, {.lid = 9}, get_first(2)));
    ASSERT_TRUE(first.send(1, {.lid = 4}, get_first(3)));
    ASSERT_TRUE(second.send(1, {.lid = 9}, get_first(4)));
    sim->settle();
    EXPECT_THAT(first_listener.transactions(), ElementsAre(2));
    EXPECT_THAT(second_listener.arrivals, IsEmpty());

    ASSERT_TRUE(net.link_up("node2", "mthca0", 1));
    sim->settle();
    EXPECT_THAT(second_listener.changes, ElementsAre("down 1", "up 1"));
    EXPECT_EQ(second.read_port(1).sm_lid, 9);
}

TEST_F(two_hosts, wrong_addresses_are_lost_and_counted_where_they_arrive)
{
    const fabric::address wrong_addresses[] = {
        {.lid = 0},
        {.lid = 77},
        {.lid = 0xC001},
        {.lid = 0xFFFF},
        {.lid = 4, .qpn = 0},
        {.lid = 4, .q_key = 1},
        {.lid = 1, .qpn = 2},
        {.lid = 1, .q_key = 0},
        {.lid = 4, .p_key_index = 1},
    };
    for (const fabric::address& destination : wrong_addresses) EXPECT_TRUE(first.send(1, destination, get_first()));
    for (const int port : {0, 3, -1}) EXPECT_FALSE(first.send(port, sa_address, get_first()));
    sim->settle();
    EXPECT_EQ(net.counts().dropped, std::size(wrong_addresses));
    EXPECT_EQ(net.counts().sent, std::size(wrong_addresses));
    EXPECT_EQ(net.counts().sa_gets, 0u);
    EXPECT_THAT(second_listener.arrivals, IsEmpty());
    EXPECT_EQ(second.read_port(1).bad_q_keys, 1u);
}

TEST_F(two_hosts, partitions_keep_hosts_apart)
{
    recording_listener third_listener;
    fabric::hca& third = *net.add_hca("node3", {.p_keys = {0x7FFF, 0x8001}}).value();
    fabric::hca& fourth = *net.add_hca("node4", {.p_keys = {0x0001}}).value();
    third.listen(&third_listener);
    for (const char* host : {"node3", "node4"}) ASSERT_TRUE(net.link_up(host, "mthca0", 1));

    ASSERT_TRUE(third.send(1, sa_address, get_first(1)));                   // from a limited member to a full one
    ASSERT_TRUE(third.send(1, {.lid = 1, .p_key_index = 1}, get_first(2))); // the SA is not in partition 1
    ASSERT_TRUE(fourth.send(1, {.lid = 5}, get_first(3)));                  // to node3, a full member of partition 1
    ASSERT_TRUE(third.send(1, {.lid = 6, .p_key_index = 0}, get_first(4))); // node4 is not in the default partition
    sim->settle();
    ASSERT_THAT(third_listener.transactions(), ElementsAre(3, 1));
    EXPECT_EQ(third_listener.arrivals[0].source.p_key_index, 1);
    EXPECT_EQ(third_listener.arrivals[1].source.p_key_index, 0);
    EXPECT_EQ(fourth.read_port(1).bad_p_keys, 1u);
    third.listen(nullptr);
}

TEST_F(two_hosts, a_cut_port_loses_one_direction_only_and_no_other_port_loses_anything)
{
    ASSERT_TRUE(net.cut_outbound("node1", "mthca0", 1, true));
    ASSERT_TRUE(first.send(1, sa_address, set_first()));
    sim->settle();
    EXPECT_THAT(net.service_records(), IsEmpty()) << "the request is lost";
    ASSERT_TRUE(net.cut_outbound("node1", "mthca0", 1, false));
    ASSERT_TRUE(net.cut_inbound("node1", "mthca0", 1, true));
    ASSERT_TRUE(first.send(1, sa_address, set_first(2)));
    ASSERT_TRUE(first.send(2, sa_address, get_first(3)));
    sim->settle();
    EXPECT_EQ(net.service_records().size(), 1u) << "only the answer is lost";
    EXPECT_THAT(first_listener.transactions(), ElementsAre(3));
    ASSERT_TRUE(net.cut_inbound("node1", "mthca0", 1, false));
    ASSERT_TRUE(first.send(1, sa_address, get_first(4)));
    sim->settle();
    EXPECT_THAT(first_listener.transactions(), ElementsAre(3, 4));
    EXPECT_EQ(net.ports().front().lost_at_cuts, 2u);
}

TEST_F(two_hosts, random_faults_depend_on_the_seed_and_on_nothing_else)
{
    auto campaign = [](uint64_t seed) {
        small_world world({.fault_seed = seed});
        world.net.faults.loss_percent = 20;
        world.net.faults.duplicate_percent = 10;
        world.net.faults.reorder_percent = 10;
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(world.first.send(1, {.lid = 4}, world.get_first(static_cast<uint64_t>(i))));
            world.sim->run_for(i % 2);
        }
        world.sim->run_for(5);
        const subnet_counts counts = world.net.counts();
        EXPECT_EQ(counts.arrived, counts.sent - counts.dropped + counts.duplicated);
        EXPECT_NEAR(static_cast<double>(counts.dropped), 200, 60);
        EXPECT_NEAR(static_cast<double>(counts.duplicated), 80, 40);
        EXPECT_FALSE(std::ranges::is_sorted(world.second_listener.transactions()));
        return world.second_listener.transactions();
    };
    const auto run = campaign(5);
    EXPECT_EQ(run, campaign(5));
    EXPECT_NE(run, campaign(6));
}

TEST_F(two_hosts, jitter_lets_datagrams_overtake_each_other_within_its_bounds)
{
    constexpr int count = 40;
    const auto arrivals_after = [&](uint64_t ticks) {
        sim->run_for(ticks);
        return second_listener.arrivals.size();
    };
    sim->run_until(10);
    net.faults.jitter_ticks = 5;
    send_numbered(count);
    const size_t immediate_count = arrivals_after(0), early_count = arrivals_after(2);
    EXPECT_LT(immediate_count, early_count);
    EXPECT_LT(early_count, size_t{count});
    EXPECT_EQ(arrivals_after(3), size_t{count});
    EXPECT_FALSE(std::ranges::is_sorted(second_listener.transactions()));
}

TEST_F(two_hosts, faults_of_the_sa_come_and_go)
{
    uint64_t transaction = 0;
    // Sends a request once. Returns the status of the answer, or -1 if no answer comes.
    auto ask = [&](const fabric::mad_bytes& mad) {
        first_listener.arrivals.clear();
        EXPECT_TRUE(first.send(1, sa_address, mad));
        sim->settle();
        return first_listener.arrivals.empty() ? -1 : int{first_listener.arrivals[0].status()};
    };
    net.faults.sa_silent = true;
    EXPECT_EQ(ask(set_first(++transaction)), -1);
    net.faults.sa_silent = false;
    EXPECT_EQ(ask(get_first(++transaction)), 0x0300) << "a silent SA must not carry out a Set";

    net.faults.drop_next_answers = 1;
    EXPECT_EQ(ask(set_first(++transaction)), -1);
    EXPECT_EQ(ask(get_first(++transaction)), 0) << "only the answer was lost";

    net.faults.answer_with(0x0700, 1);
    EXPECT_EQ(ask(get_first(++transaction)), 0x0700);
    EXPECT_EQ(test::method_of(first_listener.arrivals[0].mad), test::get_response);
    EXPECT_EQ(ask(get_first(++transaction)), 0);
    net.faults.sa_busy = true;
    EXPECT_EQ(ask(get_first(++transaction)), 0x0001);
    net.faults.sa_busy = false;

    net.faults.drop_next = 2;
    EXPECT_EQ(ask(get_first(++transaction)), -1);
    EXPECT_EQ(ask(get_first(++transaction)), -1);
    EXPECT_EQ(ask(get_first(++transaction)), 0);

    const auto backup = net.save_records();
    EXPECT_EQ(net.forget(gid_of(second, 1)), 0u);
    EXPECT_EQ(net.forget(gid_of(first, 1)), 1u);
    EXPECT_EQ(ask(get_first(++transaction)), 0x0300);
    net.restore_records(backup);
    EXPECT_EQ(ask(get_first(++transaction)), 0) << "the SA has the saved records again";

    net.faults.corrupt_percent = 100;
    EXPECT_TRUE(second.send(1, {.lid = 2}, get_first(++transaction)));
    sim->settle();
    const fabric::mad_bytes original = get_first(transaction),
                            arrival = test::bytes_of(first_listener.arrivals.back().mad);
    EXPECT_EQ(
        std::inner_product(original.begin(), original.end(), arrival.begin(), 0, std::plus{}, std::not_equal_to{}), 1);
}

TEST_F(two_hosts, a_slow_sa_serves_in_turn_and_drops_what_it_has_no_room_for)
{
    net.set_sa_limits(embedded::sa_limits{.set = {.fixed_us = 2500}, // a Set takes 2.5 ticks
                                          .get_by_gid = {.fixed_us = 1500, .record_us = 2000},
                                          .queue_capacity = 3});
    EXPECT_TRUE(first.send(1, sa_address, set_first(1)));
    for (const uint64_t transaction : {2, 3, 4}) EXPECT_TRUE(first.send(1, sa_address, get_first(transaction)));
    sim->settle();
    EXPECT_EQ(net.record_count(), 0u) << "a request takes effect when it is served";
    // The SA drops the fourth request. It answers the others after 2.5, 4 and 5.5 ticks, rounded down.
    const size_t answers_by_tick[] = {0, 0, 1, 1, 2, 3};
    for (const size_t answers : answers_by_tick) {
        EXPECT_EQ(first_listener.arrivals.size(), answers) << sim->now();
        sim->run_for(1);
    }
    EXPECT_EQ(net.sa_queue_counts().longest, 3u);
    EXPECT_EQ(net.sa_queue_counts().dropped, 1u);

    EXPECT_TRUE(first.send(1, sa_address, get_first(5))); // with one record in the table: 3.5 ticks
    sim->run_for(2);
    EXPECT_EQ(first_listener.arrivals.size(), 3u);
    sim->run_for(1);
    EXPECT_EQ(first_listener.transactions(), (std::vector<uint64_t>{1, 2, 3, 5}));
}

TEST(subnet, the_queue_is_bounded_and_empties_again)
{
    small_world world({.queue_capacity = 8});
    world.send_numbered(8);
    EXPECT_FALSE(world.first.send(1, {.lid = 4}, world.get_first()));
    world.sim->settle();
    EXPECT_EQ(world.second_listener.arrivals.size(), 8u);
    world.send_numbered(8);
    world.sim->settle();
    EXPECT_EQ(world.second_listener.arrivals.size(), 16u);

    world.net.faults.queue_full = true;
    EXPECT_FALSE(world.first.send(1, {.lid = 4}, world.get_first()));
    EXPECT_EQ(world.net.counts().refused, 2u);
}

TEST(subnet, hosts_get_what_they_asked_for_or_a_clear_error)
{
    auto sim = exec::make_simulation();
    subnet net(*sim, {.gid_prefix = 0xFEC0000000000001, .sm_lid = 3});
    EXPECT_EQ(net.link_up("node1", "mthca0", 1).error().text, "there are no hosts");
    EXPECT_TRUE(net.add_hca("node1", {.name = "mthca0", .ports = 2, .port_guids = {0x0A0B0C0D0E0F1011}}));
    EXPECT_TRUE(net.add_hca("node1", "mthca1", 1));
    EXPECT_TRUE(net.add_hca("node2", {}));

    const auto ports = net.ports();
    ASSERT_EQ(ports.size(), 4u);
    EXPECT_EQ(ports[0].gid, "0xFEC00000000000010A0B0C0D0E0F1011");
    EXPECT_EQ(ports[1].gid, "0xFEC00000000000010200000000010002");
    EXPECT_EQ(ports[1].lid, 0) << "no LID before the first link";
    for (int port : {1, 2}) ASSERT_TRUE(net.link_up("node1", "mthca0", port));
    EXPECT_EQ(net.ports()[1].lid, 4) << "LID 3 belongs to the SM";

    EXPECT_EQ(net.link_up("node9", "mthca0", 1).error().text, "there is no host 'node9'; there are node1, node2");
    EXPECT_EQ(net.find("node1", "mthca3").error().text, "node1 has no HCA 'mthca3'; it has mthca0, mthca1");
    EXPECT_EQ(net.link_down("node1", "mthca0", 3).error().text, "mthca0 of node1 has no port 3; its ports are 1 to 2");
    EXPECT_EQ(net.link_down("node1", "mthca1", 0).error().text, "mthca1 of node1 has no port 0; its only port is 1");
    EXPECT_EQ(net.set_sm(4, 0).error().text, "LID 4 is that of port 2 of mthca0 of node1");
    EXPECT_FALSE(net.set_sm(0, 0));
    EXPECT_FALSE(net.set_sm(0xC000, 0));
    EXPECT_TRUE(net.find("node2", "mthca0"));

    EXPECT_EQ(net.add_hca("node1", {}).error().text, "node1 has two HCAs mthca0");
    EXPECT_EQ(net.add_hca("node3", "mthca0", 0).error().text, "mthca0 of node3 must have 1 to 254 ports");
    EXPECT_EQ(net.add_hca("node3", {.port_guids = {0x0A0B0C0D0E0F1011}}).error().text,
              "mthca0 of node3 has the port GUID of another port");
    EXPECT_FALSE(net.find("node3", "mthca0"));
}

} // namespace
