// Three parts of the umad fabric that need no device: the table of transactions, the P_Keys of Deletes, and the reading
// of a port's attributes.
#include <gmock/gmock.h>

#include "host/fabric/umad/port-watch.h"
#include "host/fabric/umad/registered-p-keys.h"
#include "host/fabric/umad/transactions.h"
#include "tests/fabric/requests.h"

namespace
{

using enum fabric::port_change;
using test::gid_number;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(umad_transactions, are_found_once_by_their_low_half)
{
    umad::transactions table;
    constexpr uint64_t foreign_half = 0x0003000500000000; // a kernel replaces the high half of the TransactionID
    for (uint64_t i = 1; i <= 200; ++i) table.begin(0x1234567800000000 | i);
    for (uint64_t i = 1; i <= 200; ++i) {
        EXPECT_EQ(table.end(foreign_half | i), 0x1234567800000000 | i);
        EXPECT_EQ(table.end(foreign_half | i), std::nullopt) << "answered twice";
    }
    EXPECT_EQ(table.end(0), std::nullopt) << "never sent";
    // The newest requests are found, even if many old ones are never answered.
    for (uint64_t i = 1; i <= 100'000; ++i) table.begin(i);
    for (uint64_t i = 100'000; i > 99'900; --i) EXPECT_EQ(table.end(foreign_half | i), i);
    EXPECT_EQ(table.end(foreign_half | 1), std::nullopt);
}

// The module writes P_Key 0 into a Delete. registered_p_keys::complete() may replace this P_Key. Each case is a Delete
// of the record with GID number 7.
TEST(umad_registered_p_keys, complete_the_identifier_in_a_delete)
{
    using enum umad::delete_p_key;
    const struct {
        const char* name;
        umad::delete_p_key setting;
        uint16_t set_p_key;    // of the Set in this run; 0 if there was none
        uint16_t p_key_before; // in the Delete, before complete()
        uint16_t p_key_after;
    } cases[] = {
        {"registered in this run", automatic, 0x8002, 0, 0x8002},
        {"registered by an earlier run", automatic, 0, 0, 0},
        {"with a P_Key already", automatic, 0x8002, 0x8003, 0x8003},
        {"on, registered", on, 0x8002, 0, 0x8002},
        {"on, by an earlier run", on, 0, 0, 0x8001},
        {"off", off, 0x8002, 0, 0},
    };
    const fabric::port_attributes port{.gids = {gid_number(1), gid_number(7)}, .p_keys = {0x8001, 0xFFFF}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        umad::registered_p_keys p_keys(each.setting);
        auto set = test::request(MAD_METHOD_SET, test::mask_all, test::host_record(gid_number(7), 7, each.set_p_key));
        if (each.set_p_key != 0) {
            EXPECT_FALSE(p_keys.complete(set, port));
        }

        test::record_t record = test::host_record(gid_number(7), 7, each.p_key_before);
        auto deletion = test::request(MAD_METHOD_DELETE, test::mask_gid_lookup, record);
        EXPECT_EQ(p_keys.complete(deletion, port), each.p_key_after != each.p_key_before);
        record.service_pkey = to_wire(each.p_key_after);
        EXPECT_TRUE(test::same(test::record_in(deletion), record)) << "nothing else may change";
        EXPECT_EQ(from_wire(deletion.component_mask), test::mask_gid_lookup);

        auto foreign = test::request(MAD_METHOD_DELETE, test::mask_gid_lookup, test::host_record(gid_number(9), 9, 0));
        auto lookup = test::request(MAD_METHOD_GET, test::mask_gid_lookup, test::host_record(gid_number(7), 7, 0));
        EXPECT_FALSE(p_keys.complete(foreign, port)) << "another host's record";
        EXPECT_FALSE(p_keys.complete(lookup, port));
    }
}

TEST(umad_port, reports_the_changes_that_a_host_must_act_on)
{
    const fabric::port_attributes active{.state = fabric::link_state::active,
                                         .lid = 4,
                                         .sm_lid = 1,
                                         .gids = {gid_number(7)},
                                         .p_keys = {0xFFFF, 0x8001}};
    const auto active_but = [&](auto change) {
        fabric::port_attributes port = active;
        change(port);
        return port;
    };
    const auto down = active_but([](auto& port) { port.state = fabric::link_state::down; });
    const auto armed = active_but([](auto& port) { port.state = fabric::link_state::armed; });
    EXPECT_THAT(umad::changes_between(active, active), IsEmpty());
    EXPECT_THAT(umad::changes_between(down, armed), IsEmpty());
    EXPECT_THAT(umad::changes_between(armed, active), ElementsAre(link_up));
    EXPECT_THAT(umad::changes_between(active, armed), ElementsAre(link_down));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.sm_lid = 9; })), ElementsAre(sm_change));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.sm_sl = 3; })), ElementsAre(sm_change));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.p_keys[1] = 0; })),
                ElementsAre(sm_change));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.bad_p_keys = 9; })), IsEmpty());
    // After these changes the SA may have no right record of the host.
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.lid = 5; })), ElementsAre(reregister));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.gids[0][7] = 1; })),
                ElementsAre(reregister));
    EXPECT_THAT(umad::changes_between(active, active_but([](auto& port) { port.p_keys[0] = 0x8001; })),
                ElementsAre(reregister));
}

// The answer of a port to a question about itself. Every attribute that the tests compare has a value.
fabric::mad_bytes answer_to(const fabric::mad_bytes& question)
{
    fabric::mad_bytes answer = question;
    answer[3] |= MAD_METHOD_RESPONSE;
    answer[4] = 0x80; // the direction bit
    // The kernel and ibsim replace the high half of the TransactionID.
    std::fill(answer.begin() + 8, answer.begin() + 12, 9);
    uint8_t* attribute = answer.data() + 64;
    const auto put = [&](size_t offset, std::initializer_list<uint8_t> bytes) {
        std::ranges::copy(bytes, attribute + offset);
    };
    const uint8_t attribute_id = question[17], modifier = question[23];
    if (attribute_id == 0x11) put(28, {0, 64}); // two blocks of P_Keys
    if (attribute_id == 0x15) {
        put(8, {0xFE, 0xC0, 0, 0, 0, 0, 0, 1, 0x01, 0x02, 0x03, 0x04, 0x02, 0x51, 0x48, 0x6A});
        put(32, {0x14, 0, 0xC2, 0, 0x5B, 0x40});
        put(46, {0, 17, 0, 18});
    }
    if (attribute_id == 0x14) put(0, {0, 2, 0xC9, 3, 0, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0xC9, 3, 0, 1, 2, 4});
    if (attribute_id == 0x16 && modifier == 0) put(0, {0xFF, 0xFF});
    if (attribute_id == 0x16 && modifier == 1) put(2, {0x80, 0x05});
    return answer;
}

TEST(umad_port, is_read_from_its_own_answers)
{
    umad::port_watch watch(2, 1000);
    std::optional<fabric::port_attributes> attributes;
    int questions = 0;
    for (uint64_t now = 0; !attributes && questions < 20; ++questions) {
        const auto question = watch.due_question(now);
        ASSERT_TRUE(question);
        auto late = answer_to(*question);
        ++late[15];
        EXPECT_FALSE(watch.accept(late, now)) << "the answer to another question";
        if (questions == 1) {
            EXPECT_EQ((*question)[23], 2) << "PortInfo of port 2";
            EXPECT_FALSE(watch.due_question(now)) << "asked twice at once";
            const auto again = watch.due_question(watch.next_due());
            ASSERT_TRUE(again) << "a question without an answer is not repeated";
            attributes = watch.accept(answer_to(*again), now);
            continue;
        }
        attributes = watch.accept(answer_to(*question), now);
    }
    ASSERT_TRUE(attributes);
    EXPECT_EQ(questions, 5) << "NodeInfo, PortInfo, GUIDInfo, two P_Key blocks";
    EXPECT_EQ(attributes->state, fabric::link_state::active);
    EXPECT_EQ(attributes->lid, 0x0102);
    EXPECT_EQ(attributes->sm_lid, 0x0304);
    EXPECT_EQ(attributes->capability_mask, 0x0251486Au);
    EXPECT_EQ(attributes->lmc, 2);
    EXPECT_EQ(attributes->mtu, 5);
    EXPECT_EQ(attributes->sm_sl, 11);
    EXPECT_EQ(attributes->max_vls, 8);
    EXPECT_EQ(attributes->bad_p_keys, 17u);
    EXPECT_EQ(attributes->bad_q_keys, 18u);
    EXPECT_THAT(attributes->gids, ElementsAre(fabric::make_gid(0xFEC0000000000001, 0x0002C90300010203),
                                              fabric::make_gid(0xFEC0000000000001, 0),
                                              fabric::make_gid(0xFEC0000000000001, 0x0002C90300010204)));
    ASSERT_EQ(attributes->p_keys.size(), 34u) << "an empty entry must not be left out";
    EXPECT_EQ(attributes->p_keys[0], 0xFFFF);
    EXPECT_EQ(attributes->p_keys[33], 0x8005);
    EXPECT_EQ(watch.next_due(), 1000u);
}

struct port_reading {
    int questions = 0; // number of questions to the port
    std::optional<fabric::port_attributes> attributes = {};
};

// Answers the questions of `watch` until `watch` has the attributes of the port, or asks nothing. `lid` is the low byte
// of the port's LID.
port_reading read_port(umad::port_watch& watch, uint8_t lid = 2)
{
    port_reading reading;
    const uint64_t now = watch.next_due();
    while (!reading.attributes && ++reading.questions < 20) {
        const auto question = watch.due_question(now);
        if (!question) return reading;
        fabric::mad_bytes answer = answer_to(*question);
        if ((*question)[17] == 0x15) answer[64 + 17] = lid;
        reading.attributes = watch.accept(answer, now);
    }
    return reading;
}

TEST(umad_port, is_asked_one_question_while_nothing_changes)
{
    umad::port_watch watch(2, 100);
    const auto first = read_port(watch);
    ASSERT_EQ(first.questions, 5);
    for (int i = 0; i < 9; ++i) {
        const auto brief = read_port(watch);
        EXPECT_EQ(brief.questions, 1);
        EXPECT_THAT(umad::changes_between(*first.attributes, *brief.attributes), IsEmpty());
    }
    EXPECT_EQ(read_port(watch).questions, 5)
        << "from time to time all attributes must be read, because the P_Keys may have changed";
    const auto changed = read_port(watch, 9);
    EXPECT_EQ(changed.questions, 6);
    EXPECT_EQ(changed.attributes->lid, 0x0109);
    EXPECT_EQ(read_port(watch, 9).attributes->lid, 0x0109);

    fabric::mad_bytes old_answer = answer_to(*watch.due_question(watch.next_due()));
    old_answer[64 + 17] = 9;
    watch.hurry(5);
    EXPECT_EQ(watch.next_due(), 5u);
    EXPECT_FALSE(watch.accept(old_answer, 5)) << "an answer from before the event";
    EXPECT_EQ(read_port(watch, 9).questions, 5);

    watch.hurry(5, umad::self_query::look::brief);
    EXPECT_EQ(read_port(watch, 9).questions, 1);
    EXPECT_EQ(watch.next_due(), 5u) << "after the brief reading, all attributes must be read";
    EXPECT_EQ(read_port(watch, 9).questions, 5);
}

TEST(umad_port, that_stops_answering_counts_as_silent_and_is_asked_again)
{
    umad::port_watch watch(1, 1000);
    uint64_t now = 0;
    while (const auto question = watch.due_question(now))
        if (watch.accept(answer_to(*question), now)) break;
    const uint64_t last_heard = now;
    int questions = 0;
    while (!watch.is_silent()) {
        ASSERT_GT(watch.next_due(), now) << "the port is asked again without a pause";
        now = watch.next_due();
        ASSERT_TRUE(watch.due_question(now));
        ASSERT_LT(++questions, 100);
    }
    EXPECT_GT(now - last_heard, 5000u) << "after the loss of one or two datagrams the port must not count as silent";
    EXPECT_LT(now - last_heard, 10'000u);
    watch.postpone(now);
    EXPECT_FALSE(watch.is_silent()) << "a silent port must be asked again";
    EXPECT_TRUE(read_port(watch).attributes);
}

} // namespace
