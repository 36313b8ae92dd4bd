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

TEST(gsi, reports_the_latest_answer_of_the_sa_about_a_registration)
{
    using enum stack::registration_state;
    constexpr uint8_t set = MAD_METHOD_SET, get = MAD_METHOD_GET, remove = MAD_METHOD_DELETE;
    constexpr uint16_t none = status_word(SA_STATUS_NO_RECORDS), full = status_word(SA_STATUS_NO_RESOURCES);
    constexpr int lost = -1;
    const auto gid = fabric::make_gid(1, 2);
    const test::record_t first = test::host_record(gid, 1), second = test::host_record(gid, 2);
    const test::record_t foreign = test::host_record(fabric::make_gid(1, 3), 1);
    const struct {
        uint8_t method;
        test::record_t record; // in the request
        int status;            // in the answer
        test::record_t answer; // the record in the answer
        stack::registration_state expectation;
        uint64_t confirmations;
        bool is_unanswered = false;
        bool is_new = false; // the SA has never confirmed this content
    } steps[] = {
        {set, first, 0, first, confirmed, 1},
        {set, second, lost, {}, asked, 1, true, true},
        {set, second, lost, {}, asked, 1, true, true},
        {get, second, 0, second, confirmed, 2}, // confirms the Set, whose answer was lost
        {get, second, none, second, missing, 2},
        {set, second, full, {}, refused, 2},
        {get, second, 0, first, different, 2},
        {get, foreign, 0, foreign, different, 2},
        {remove, foreign, 0, foreign, different, 2},
        {remove, second, lost, {}, different, 2, true},
        {remove, second, 0, second, withdrawn, 2},
    };
    machine_with_fake world;
    world.run([&] {
        gsi_client client;
        const auto last_state = [&] { return world.host.get<stack::gsi>().registrations().at(0).record; };
        uint64_t transaction = 0, unanswered_tick = 0;
        uint8_t unanswered_method = 0;
        for (const auto& step : steps) {
            SCOPED_TRACE(transaction);
            schedule_timeout_uninterruptible(1);
            if (unanswered_method != step.method) unanswered_tick = get_jiffies();
            unanswered_method = step.status == lost ? step.method : 0;
            gsi_dtgrm_t* datagram = client.make();
            sa_mad_v2_t mad = test::request(step.method, test::mask_gid_lookup, step.record);
            mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
            memcpy(datagram->mad, &mad, MAD_SIZE);
            ASSERT_EQ(gsi_post_send_dtgrm(client.classes[1], datagram, &transaction), 0);
            mad = test::request(step.method == remove ? test::delete_response : test::get_response, 0, step.answer,
                                transaction);
            mad.hdr.m.r = 1;
            mad.hdr.u.ns.status.raw16 = to_wire(static_cast<uint16_t>(step.status));
            if (step.status != lost) world.hca.arrive(2, mad);
            EXPECT_EQ(last_state().state, step.expectation);
            EXPECT_EQ(last_state().confirmations, step.confirmations);
            EXPECT_EQ(last_state().confirmed_tick.has_value(), !step.is_new) << "of this content";
            EXPECT_EQ(last_state().is_unanswered, step.is_unanswered);
            EXPECT_EQ(step.is_unanswered ? last_state().unanswered_tick : unanswered_tick, unanswered_tick);
        }
        EXPECT_EQ(last_state().restores, 1u) << "one Set came after the record was lost";
        EXPECT_TRUE(test::same(last_state().sa_record, first));
        EXPECT_EQ(last_state().port, 2);
        EXPECT_EQ(last_state().sm_lid, 1);
        EXPECT_TRUE(test::same(last_state().record, second));

        gsi_dtgrm_t* datagram = client.make();
        sa_mad_v2_t mad = test::request(set, 0, second);
        mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
        memcpy(datagram->mad, &mad, MAD_SIZE);
        world.hca.accepts = false;
        EXPECT_LT(gsi_post_send_dtgrm(client.classes[1], datagram, nullptr), 0);
        EXPECT_EQ(last_state().state, not_sent);
        EXPECT_FALSE(last_state().is_unanswered);
        gsi_dtgrm_pool_put(datagram);
        client.close();
    });
}

TEST(gsi, compares_each_field_of_a_registration_with_the_record_of_the_sa)
{
    using enum stack::registration_state;
    using record_t = test::record_t;
    const std::pair<size_t, stack::registration_state> cases[] = {
        {offsetof(record_t, service_id), different},         {offsetof(record_t, service_gid) + 15, different},
        {offsetof(record_t, service_name) + 3, different},   {offsetof(record_t, service_data8) + 12, different},
        {offsetof(record_t, service_data16), different},     {offsetof(record_t, service_data32) + 1, different},
        {offsetof(record_t, service_data64) + 2, different}, {offsetof(record_t, service_data64) + 3, different},
        {offsetof(record_t, service_data64) + 8, confirmed}, {offsetof(record_t, service_pkey), confirmed},
        {offsetof(record_t, service_lease), confirmed},      {offsetof(record_t, service_key), confirmed},
    };
    machine_with_fake world;
    world.run([&] {
        gsi_client client;
        record_t own = test::host_record(fabric::make_gid(1, 2), 1);
        memset(own.service_data32, 'n', sizeof own.service_data32);
        memset(own.service_data64, 'n', 3); // a zero byte follows, and ends the name
        const auto ask = [&](uint8_t method) {
            uint64_t transaction = 0;
            gsi_dtgrm_t* datagram = client.make();
            sa_mad_v2_t mad = test::request(method, test::mask_gid_lookup, own);
            mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
            memcpy(datagram->mad, &mad, MAD_SIZE);
            EXPECT_EQ(gsi_post_send_dtgrm(client.classes[0], datagram, &transaction), 0);
            return transaction;
        };
        const auto state_after = [&](uint64_t transaction, const record_t& record, uint16_t status = 0) {
            sa_mad_v2_t mad = test::request(test::get_response, 0, record, transaction);
            mad.hdr.m.r = 1;
            mad.hdr.u.ns.status.raw16 = to_wire(status);
            world.hca.arrive(1, mad);
            schedule_timeout_uninterruptible(1);
            return world.host.get<stack::gsi>().registrations().at(0).record.state;
        };
        EXPECT_EQ(state_after(ask(MAD_METHOD_SET), own), confirmed);
        for (const auto& [offset, state] : cases) {
            record_t record = own;
            reinterpret_cast<uint8_t*>(&record)[offset] ^= 0x40;
            EXPECT_EQ(state_after(ask(MAD_METHOD_GET), record), state) << "byte " << offset;
            if (state == confirmed) continue;
            EXPECT_EQ(state_after(99, record), state) << "an answer that nobody awaits";
            EXPECT_EQ(state_after(99, own, status_word(SA_STATUS_NO_RECORDS)), state);
            EXPECT_EQ(state_after(99, own), confirmed) << "the answer to a lookup of this host";
        }
        world.hca.accepts = false;
        gsi_dtgrm_t* datagram = client.make();
        sa_mad_v2_t other = test::request(MAD_METHOD_SET, 0, own);
        other.hdr.attrib_id = SA_ATTR_PATH_RECORD; // not a registration
        memcpy(datagram->mad, &other, MAD_SIZE);
        EXPECT_LT(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
        gsi_dtgrm_pool_put(datagram);
        EXPECT_EQ(world.host.get<stack::gsi>().registrations().at(0).record.state, confirmed);
        world.hca.accepts = true;
        ask(MAD_METHOD_DELETE);
        ask(MAD_METHOD_GET);
        EXPECT_EQ(state_after(99, own, 1), confirmed);
        client.close();
    });
}

TEST(gsi, keeps_the_latest_set_of_each_record_up_to_a_limit)
{
    constexpr size_t limit = 256;
    machine_with_fake world;
    world.run([&] {
        gsi_client client;
        const auto set = [&](int number, uint8_t octet) {
            gsi_dtgrm_t* datagram = client.make();
            sa_mad_v2_t mad = test::request(MAD_METHOD_SET, 0, test::host_record(test::gid_number(number), octet));
            mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
            memcpy(datagram->mad, &mad, MAD_SIZE);
            ASSERT_EQ(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
            schedule_timeout_uninterruptible(1);
        };
        const auto records = [&] { return world.host.get<stack::gsi>().set_records(); };
        set(1, 1);
        set(2, 2);
        set(1, 3);
        ASSERT_EQ(records().size(), 2u);
        EXPECT_TRUE(test::same(records()[0], test::host_record(test::gid_number(2), 2)));
        EXPECT_TRUE(test::same(records()[1], test::host_record(test::gid_number(1), 3)));
        for (size_t i = 3; i <= limit + 1; ++i) set(static_cast<int>(i % 256), i < 256 ? 4 : 5);
        EXPECT_EQ(records().size(), limit);

        constexpr size_t service_limit = 16; // registrations() has the states of this number of services at most
        for (uint64_t service = 1; service <= service_limit + 1; ++service) {
            gsi_dtgrm_t* datagram = client.make();
            test::record_t record = test::host_record(test::gid_number(1), 1);
            record.service_id = to_wire(service);
            sa_mad_v2_t mad = test::request(MAD_METHOD_SET, 0, record);
            mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
            memcpy(datagram->mad, &mad, MAD_SIZE);
            ASSERT_EQ(gsi_post_send_dtgrm(client.classes[0], datagram, nullptr), 0);
            schedule_timeout_uninterruptible(1);
        }
        EXPECT_EQ(world.host.get<stack::gsi>().registrations().size(), service_limit);
        client.close();
    });
}

// Counts one request or answer after the other. The tables have the texts under which reports show each of them.
TEST(gsi, counts_the_requests_to_the_sa_by_attribute_and_its_answers_by_status)
{
    constexpr uint16_t other_attribute = 0x0011, path = SA_ATTR_PATH_RECORD, service = SA_ATTR_SERVICE_RECORD;
    const struct {
        uint8_t method;
        uint16_t attribute;
        const char* count;
    } requests[] = {
        {MAD_METHOD_SET, service, "set ServiceRecord"},
        {MAD_METHOD_GET, service, "get ServiceRecord"},
        {MAD_METHOD_DELETE, service, "delete ServiceRecord"},
        {MAD_METHOD_GET_TABLE, service, "other other"},
        {MAD_METHOD_GET, path, "get PathRecord"},
        {MAD_METHOD_GET_TABLE, path, "other other"},
        {MAD_METHOD_SET, other_attribute, "other other"},
    };
    const std::pair<uint16_t, const char*> answers[] = {
        {0, "ok"},
        {1, "busy"},
        {0x0100, "no_resources"},
        {0x0200, "invalid_request"},
        {0x0300, "no_records"},
        {0x0700, "denied"},
        {0x0800, "other"},
        {0x0101, "other"},
        {2, "other"},
        {0xFF00, "other"},
    };
    constexpr uint8_t performance_management = 0x04;
    stack::sa_traffic traffic;
    // Returns the texts of the requests and answers that were counted since the last call.
    auto counted = [&, before = stack::sa_counts{}]() mutable {
        const stack::sa_counts now = traffic.counts();
        std::vector<std::string> texts;
        for (size_t i = 0; i < stack::sa_request_count; ++i)
            for (uint64_t n = before.requests[i]; n < now.requests[i]; ++n)
                texts.push_back(std::string(stack::sa_request_texts[i].method) + " " +
                                stack::sa_request_texts[i].attribute);
        for (size_t i = 0; i < stack::sa_status_count; ++i)
            for (uint64_t n = before.answers[i]; n < now.answers[i]; ++n) texts.emplace_back(stack::sa_status_texts[i]);
        before = now;
        return texts;
    };
    sa_mad_v2_t mad{};
    for (const uint8_t mgt_class : {MAD_CLASS_SUBN_ADM, performance_management}) {
        const auto expected = [&](const char* text) {
            return mgt_class == MAD_CLASS_SUBN_ADM ? std::vector<std::string>{text} : std::vector<std::string>{};
        };
        for (const auto& each : requests) {
            mad = test::request(each.method, 0, {});
            mad.hdr.mgt_class = mgt_class;
            mad.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(each.attribute));
            traffic.count_request(test::bytes_of(mad));
            EXPECT_EQ(counted(), expected(each.count));
        }
        for (const auto& [status, text] : answers) {
            mad.hdr.u.ns.status.raw16 = to_wire(status);
            traffic.count_answer(test::bytes_of(mad));
            EXPECT_EQ(counted(), expected(text)) << status;
        }
    }
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

        world.hca.listener = nullptr; // without a class, the adapter does not listen
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
