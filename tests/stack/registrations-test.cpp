// The GSI layer notes what a host asks the SA and what the SA answers. From this it makes the states of registrations,
// and counters.
#include <gtest/gtest.h>

#include "host/stack/gsi-service.h"
#include "tests/stack/fake-hca.h"
#include "tests/stack/gsi-client.h"

namespace
{

TEST(sa_bookkeeping, reports_the_latest_answer_of_the_sa_about_a_registration)
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

TEST(sa_bookkeeping, compares_each_field_of_a_registration_with_the_record_of_the_sa)
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

TEST(sa_bookkeeping, keeps_the_latest_set_of_each_record_up_to_a_limit)
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
        for (size_t i = 3; i <= limit + 1; ++i) set(static_cast<int>(i), 4);
        EXPECT_EQ(records().size(), limit);
        EXPECT_TRUE(test::same(records()[0], test::host_record(test::gid_number(1), 3))) << "the oldest must go";

        constexpr size_t service_limit = 16; // registrations() returns states for at most this number of services
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

// Counts one request or answer after another. Each row has the name of the counter that must grow. A MAD of another
// management class than the SA's must not count.
TEST(sa_bookkeeping, counts_the_requests_to_the_sa_by_attribute_and_its_answers_by_status)
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

} // namespace
