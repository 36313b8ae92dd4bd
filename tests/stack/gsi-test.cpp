// The GSI layer. Tests which datagrams it sends, when it calls its clients back, and when it gives datagrams back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

#include "host/stack/gsi-service.h"
#include "host/stack/verbs-service.h"
#include "kernel/errno.h"
#include "tests/stack/fake-hca.h"
#include "tests/stack/gsi-client.h"

using testing::ElementsAre;

namespace
{

stack::gsi_counts counts_of(machine_with_fake& world)
{
    return world.host.get<stack::gsi>().adapters().at(0).counts;
}

size_t free_in_pool(machine_with_fake& world)
{
    return world.host.get<stack::gsi>().pools().at(0).free;
}

sa_mad_v2_t answer(uint64_t transaction_id, uint8_t method = test::get_response, uint8_t mgt_class = MAD_CLASS_SUBN_ADM)
{
    sa_mad_v2_t mad = test::request(method, 0, {}, transaction_id);
    mad.hdr.m.r = method >> 7;
    mad.hdr.mgt_class = mgt_class;
    return mad;
}

TEST(gsi, fills_in_the_fields_that_clients_leave_to_it)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client client;
        gsi_dtgrm_t* datagram = client.make();
        datagram->rlid = 7;
        datagram->sl = 3;
        datagram->path_bits = 2;
        datagram->static_rate = 5;
        uint64_t id = 0;
        ASSERT_EQ(gsi_post_send_dtgrm(client.classes[1], datagram, &id), 0);
        EXPECT_THAT(client.lines, ElementsAre()) << "a completion never comes inside the post";
        for (const void* shown : {static_cast<void*>(client.classes[0]), static_cast<void*>(datagram)}) {
            EXPECT_GE(world.host.addresses.nominal(shown), kernel::nominal_objects);
            EXPECT_LT(world.host.addresses.nominal(shown), kernel::nominal_images);
        }
        datagram = client.make();
        datagram->rqk = 0x1234;
        ASSERT_EQ(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
        client.close();
        EXPECT_LT(world.host.addresses.nominal(datagram), kernel::nominal_objects) << "the pool is gone";
        EXPECT_THAT(client.lines, ElementsAre("sent 1 on port 2", "sent 2"));

        ASSERT_EQ(world.hca.sent_mads.size(), 2u);
        const auto& [port, destination, mad] = world.hca.sent_mads[0];
        EXPECT_EQ(port, 2);
        EXPECT_EQ(destination.lid, 7);
        EXPECT_EQ(destination.sl, 3);
        EXPECT_EQ(destination.path_bits, 2);
        EXPECT_EQ(destination.static_rate, 5);
        EXPECT_EQ(destination.qpn, 1u);
        EXPECT_EQ(destination.q_key, 0x80010000u);
        EXPECT_EQ(destination.p_key_index, 0);
        EXPECT_EQ(id, 1u);
        EXPECT_EQ(mad, test::bytes_of(test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, id)));
        EXPECT_EQ(world.hca.sent_mads[1].destination.q_key, 0x1234u);
    });
}

TEST(gsi, gives_back_sends_and_answers_one_by_one_in_the_order_they_happened)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client client;
        client.action = [&](const gsi_dtgrm_t* datagram) {
            if (client.lines.size() == 2) client.post(1); // must complete after the sends that wait already
            if (client.lines.size() == 5) {
                // An answer arrives during a callback. may_complete() must not call a second callback at the same time.
                world.hca.arrive(2, answer(52));
                world.hca.listener->may_complete(false);
            }
            if (client.lines.size() != 3) return;
            EXPECT_EQ(int{datagram->rlid}, 77); // int{} makes a copy: no reference can bind to a packed field
            EXPECT_EQ(int{datagram->sl}, 4);
            EXPECT_EQ(int{datagram->path_bits}, 3);
            EXPECT_EQ(int{datagram->static_rate}, 5);
            EXPECT_EQ(unsigned{datagram->rqp}, 6u);
            EXPECT_EQ(unsigned{datagram->rqk}, 7u);
            EXPECT_EQ(int{datagram->pkey_idx}, 2);
        };
        client.post(2);
        world.hca.arrive(1, answer(50));
        world.hca.arrive(2, answer(51), {77, 4, 3, 5, 6, 7, 2});
        client.post(1);
        world.hca.arrive(1, answer(50)); // GSI delivers duplicates
        schedule_timeout_uninterruptible(1);
        EXPECT_THAT(client.lines, ElementsAre("sent 1 on port 2", "got 50", "got 51 on port 2", "sent 2", "got 50",
                                              "sent 3", "got 52 on port 2"));
        client.close();
        EXPECT_EQ(counts_of(world).completed, 3u);
        EXPECT_EQ(counts_of(world).delivered, 4u);
    });
}

// The fabric's task calls may_complete(). may_complete(true) announces another call of may_complete(). Until that call,
// completed sends may wait.
TEST(gsi, completes_in_the_fabrics_task_and_leaves_sends_for_its_announced_next_call)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client client(4);
        client.action = [](gsi_dtgrm_t*) { EXPECT_TRUE(exec::current_task()->atomic_context); };
        const auto new_lines = [&](bool at_once) {
            if (!at_once) schedule_timeout_uninterruptible(1);
            return std::exchange(client.lines, {});
        };
        client.post();
        world.hca.arrive(2, answer(50));
        world.hca.listener->may_complete(true);
        EXPECT_THAT(new_lines(true), ElementsAre("sent 1", "got 50 on port 2"));
        EXPECT_THAT(new_lines(false), ElementsAre()) << "the adapter's own task must not call back a second time";
        client.post();
        EXPECT_THAT(new_lines(false), ElementsAre());
        world.hca.arrive(1, answer(51));
        EXPECT_THAT(new_lines(false), ElementsAre());
        world.hca.listener->may_complete(true);
        EXPECT_THAT(new_lines(true), ElementsAre("sent 2", "got 51"));

        for (int i = 0; i < 4; ++i) client.post();
        EXPECT_THAT(new_lines(false), ElementsAre("sent 3", "sent 4", "sent 5", "sent 6"))
            << "the pool is almost empty, so sends do not wait for the announced call";

        client.post();
        world.hca.listener->may_complete(false);
        EXPECT_THAT(new_lines(true), ElementsAre("sent 7"));
        client.post();
        EXPECT_THAT(new_lines(false), ElementsAre("sent 8"));

        world.hca.listener->may_complete(true);
        client.close();
        gsi_client next_client(4);
        next_client.post();
        schedule_timeout_uninterruptible(1);
        EXPECT_THAT(next_client.lines, ElementsAre("sent 9"))
            << "an announced call counts no longer after the last class has ended";
        next_client.close();
    });
}

TEST(gsi, drops_and_counts_datagrams_without_a_client)
{
    constexpr uint8_t performance_management = 0x04;
    constexpr uint64_t receive_pool = 256;
    machine_with_fake world;
    world.run([&] {
        gsi_client client(1, 1);
        world.hca.arrive(1, answer(1, MAD_METHOD_GET));
        world.hca.arrive(1, answer(2, test::get_response, performance_management));
        world.hca.arrive(2, answer(3)); // the class has no client at port 2
        sa_mad_v2_t other_version = answer(4);
        other_version.hdr.class_ver = 1;
        world.hca.arrive(1, other_version); // GSI delivers it; the client must check the version itself
        schedule_timeout_uninterruptible(1);
        EXPECT_THAT(client.lines, ElementsAre("got 4"));
        EXPECT_EQ(counts_of(world).dropped_no_response, 1u);
        EXPECT_EQ(counts_of(world).dropped_no_class, 2u);

        client.keeps_datagrams = true;
        for (uint64_t i = 0; i < receive_pool + 5; ++i) world.hca.arrive(1, answer(i));
        schedule_timeout_uninterruptible(1);
        EXPECT_EQ(client.datagrams.size(), receive_pool);
        EXPECT_EQ(counts_of(world).dropped_no_datagram, 5u);
        for (gsi_dtgrm_t* each : client.datagrams) gsi_dtgrm_pool_put(each);
        world.hca.arrive(1, answer(9));
        schedule_timeout_uninterruptible(1);
        EXPECT_EQ(client.lines.back(), "got 9");
        gsi_dtgrm_pool_put(client.datagrams.back());
        client.close();
    });
}

TEST(gsi, clients_that_share_a_class_get_the_answers_to_their_own_requests)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client owner(4, 1), guest(4, 1, true), other_guest(4, 1, true);
        std::vector<uint64_t> transactions;
        for (gsi_client* each : {&owner, &guest, &other_guest, &owner}) {
            gsi_dtgrm_t* datagram = each->make();
            sa_mad_v2_t mad;
            memcpy(&mad, datagram->mad, sizeof mad);
            mad.hdr.transact_id = to_wire(uint64_t{0xAB000005}); // GSI takes only the low 24 bits, and only of guests
            memcpy(datagram->mad, &mad, sizeof mad);
            ASSERT_EQ(gsi_post_send_dtgrm(each->classes[0], datagram, &transactions.emplace_back()), 0);
            EXPECT_EQ(from_wire(std::bit_cast<sa_mad_v2_t>(world.hca.sent_mads.back().mad).hdr.transact_id),
                      transactions.back());
        }
        EXPECT_EQ(transactions[0], 1u);
        EXPECT_EQ(transactions[3], 2u) << "guests must not change the transaction IDs of the owner";
        EXPECT_EQ(transactions[1] & gsi_joined_transaction_bits, 5u);
        EXPECT_NE(static_cast<uint32_t>(transactions[1]), static_cast<uint32_t>(transactions[2]))
            << "the low halves must differ";
        schedule_timeout_uninterruptible(1);
        for (gsi_client* each : {&owner, &guest, &other_guest}) each->lines.clear();

        for (const uint64_t transaction : transactions) world.hca.arrive(1, answer(transaction));
        schedule_timeout_uninterruptible(1);
        EXPECT_THAT(owner.lines, ElementsAre("got 1", "got 2"));
        EXPECT_THAT(guest.lines, ElementsAre("got " + std::to_string(transactions[1])));
        EXPECT_THAT(other_guest.lines, ElementsAre("got " + std::to_string(transactions[2])));

        guest.close();
        owner.close();
        world.hca.arrive(1, answer(transactions[1]));
        world.hca.arrive(1, answer(transactions[0]));
        EXPECT_EQ(counts_of(world).dropped_no_asker, 1u);
        EXPECT_EQ(counts_of(world).dropped_no_class, 1u);
        other_guest.close();
    });
}

TEST(gsi, at_most_127_clients_share_a_class)
{
    machine_with_fake world;
    world.run([&] {
        const auto completed = [](gsi_class_handle_t, void*, gsi_dtgrm_t*) {};
        std::vector<gsi_class_handle_t> handles;
        const auto join = [&] {
            return gsi_join_class(MAD_CLASS_SUBN_ADM, 2, &mthca0, 1, completed, completed, nullptr,
                                  &handles.emplace_back());
        };
        for (int i = 0; i < 127; ++i) EXPECT_EQ(join(), 0);
        EXPECT_EQ(join(), -EK_BUSY);
        handles.pop_back();
        std::set<uint8_t> numbers;
        for (const gsi_class_t* each : handles) numbers.insert(each->number);
        EXPECT_EQ(numbers.size(), 127u);
        EXPECT_EQ(*numbers.begin(), 1) << "0 is the client that has registered the class";
        EXPECT_EQ(gsi_deregister_class(handles[50]), 0);
        EXPECT_EQ(join(), 0);
        EXPECT_EQ(handles.back()->number, handles[50]->number);
        handles.erase(handles.begin() + 50);
        for (gsi_class_t* each : handles) EXPECT_EQ(gsi_deregister_class(each), 0);
        EXPECT_EQ(world.hca.listener, nullptr);
    });
}

TEST(gsi, a_pool_runs_out_and_a_refused_post_leaves_the_datagram_as_it_was)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client client(3);
        for (int i = 0; i < 3; ++i) client.post();
        EXPECT_EQ(client.make(), nullptr);
        schedule_timeout_uninterruptible(1);
        EXPECT_EQ(free_in_pool(world), 3u);

        gsi_dtgrm_t* datagram = client.make();
        gsi_dtgrm_t copy;
        memcpy(&copy, datagram, sizeof copy);
        world.hca.accepts = false;
        EXPECT_LT(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
        EXPECT_EQ(memcmp(copy.mad, datagram->mad, sizeof copy - offsetof(gsi_dtgrm_t, mad)), 0);
        world.hca.accepts = true;
        EXPECT_EQ(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
        schedule_timeout_uninterruptible(1);
        EXPECT_EQ(free_in_pool(world), 3u);
        EXPECT_EQ(counts_of(world).refused, 1u);
        EXPECT_EQ(counts_of(world).posted, 4u);
        client.close();
    });
}

TEST(gsi, a_class_cannot_end_while_its_datagrams_are_in_flight)
{
    machine_with_fake world;
    world.run([&] {
        gsi_client client(2, 1);
        gsi_class_t* handle = client.classes[0];
        int refusal_count = 0;
        client.action = [&](gsi_dtgrm_t*) { refusal_count += gsi_deregister_class(handle) != 0; };
        client.post();
        EXPECT_NE(gsi_deregister_class(handle), 0) << "a send has not completed";
        schedule_timeout_uninterruptible(1);
        world.hca.arrive(1, answer(5));
        EXPECT_NE(gsi_deregister_class(handle), 0) << "an answer is not delivered";
        schedule_timeout_uninterruptible(1);
        EXPECT_EQ(refusal_count, 2) << "a callback is running";
        client.close();

        EXPECT_EQ(world.hca.listener, nullptr) << "the adapter listens without a class";
        EXPECT_NE(gsi_deregister_class(handle), 0);
        gsi_client next_client(2, 1);
        EXPECT_NE(next_client.classes[0], handle);
        gsi_dtgrm_t* datagram = next_client.make();
        EXPECT_NE(gsi_post_send_dtgrm(handle, datagram, nullptr), 0) << "a stale handle";
        gsi_dtgrm_pool_put(datagram);
        next_client.post();
        next_client.close();
        EXPECT_THAT(client.lines, ElementsAre("sent 1", "got 5"));
        EXPECT_THAT(next_client.lines, ElementsAre("sent 2"));
    });
}

TEST(gsi, misuse_is_a_hard_error_that_shows_the_history_of_the_datagram)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    struct {
        const char* panic;
        void (*misuse)(gsi_client& client, machine_with_fake& world);
    } const cases[] = {
        {"put: datagram .* of pool 'client' is back in its pool: taken at tick 0, put at tick 0",
         [](gsi_client& client, machine_with_fake&) {
             gsi_dtgrm_t* datagram = client.make();
             gsi_dtgrm_pool_put(datagram);
             gsi_dtgrm_pool_put(datagram);
         }},
        {"post_send_dtgrm: .* is posted and has not completed",
         [](gsi_client& client, machine_with_fake&) {
             gsi_dtgrm_t* datagram = client.make();
             gsi_post_send_dtgrm(client.classes[0], datagram, nullptr);
             gsi_post_send_dtgrm(client.classes[0], datagram, nullptr);
         }},
        {"post_send_dtgrm: .* is back in its pool: taken at tick 1, .*sent at tick 1 by class 3 of port 1, put at tick "
         "2\n",
         [](gsi_client& client, machine_with_fake&) {
             client.keeps_datagrams = true;
             schedule_timeout_uninterruptible(1);
             client.post();
             schedule_timeout_uninterruptible(1);
             gsi_dtgrm_pool_put(client.datagrams[0]);
             gsi_post_send_dtgrm(client.classes[0], client.datagrams[0], nullptr);
         }},
        {"put: 0x[0-9a-f]+ is not a datagram of any pool",
         [](gsi_client&, machine_with_fake&) {
             gsi_dtgrm_t foreign{};
             gsi_dtgrm_pool_put(&foreign);
         }},
        {"was not returned to pool 'client', which is destroyed with 15 of 16 free: taken at tick 0",
         [](gsi_client& client, machine_with_fake&) {
             client.make();
             gsi_dtgrm_pool_destroy(client.pool);
         }},
        {"down may sleep, and is called in GSI completion of mthca0",
         [](gsi_client& client, machine_with_fake&) {
             semaphore sem;
             sema_init(&sem, 1);
             client.action = [&](gsi_dtgrm_t*) { down(&sem); };
             client.post();
             schedule_timeout_uninterruptible(1);
         }},
        {"machine node1 is destroyed while class 3 of port 1 of mthca0 is registered with GSI",
         [](gsi_client& client, machine_with_fake&) { gsi_dtgrm_pool_destroy(client.pool); }},
        {"machine node1 is destroyed while datagram pool 'client' exists",
         [](gsi_client& client, machine_with_fake&) {
             for (gsi_class_t* each : client.classes) gsi_deregister_class(each);
         }},
        {"machine node1 is destroyed while mthca0 is open",
         [](gsi_client& client, machine_with_fake&) {
             client.close();
             kq_hca_h_t handle;
             kq_hca_open(&mthca0, 0, &handle);
         }},
        {"machine node1 is destroyed while mthca0 is subscribed to",
         [](gsi_client& client, machine_with_fake& world) {
             client.close();
             auto& events = world.host.get<stack::verbs>().events_of(world.hca);
             events.subscribe(nullptr, [](kq_event_record_st) {});
         }},
        {"mthca0: detach without attach",
         [](gsi_client& client, machine_with_fake& world) {
             client.close();
             stack::hca_hub(world.hca).detach(client.classes[0]->adapter);
         }},
        {"pool 'mthca0 receive', which is destroyed with 255 of 256 free: received at .* by class 3 of port 1, "
         "delivered",
         [](gsi_client& client, machine_with_fake& world) {
             client.keeps_datagrams = true;
             world.hca.arrive(1, answer(1));
             client.close();
         }},
    };
    for (const auto& each : cases)
        EXPECT_DEATH(
            {
                machine_with_fake world;
                world.run([&] {
                    gsi_client client;
                    each.misuse(client, world);
                });
            },
            each.panic);
}

} // namespace
