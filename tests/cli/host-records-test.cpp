// On a real fabric, the service searches the SA for records of the host's address under other GIDs before the host
// registers (cli::other_holder). After the host has left, the service deletes the host's records that the SA still has
// (cli::delete_leftovers).
#include <functional>
#include <gtest/gtest.h>

#include "cli/service/host-records.h"
#include "host/fabric/embedded/subnet.h"
#include "host/fabric/umad/sa-client.h"
#include "host/world/module-folder.h"
#include "host/world/sa-questions.h"
#include "tests/fabric/requests.h"

namespace
{

constexpr uint16_t first_p_key = 0xFFFF, second_p_key = 0x8005;  // of the host's ports
constexpr uint16_t other_p_key = 0x8006, another_p_key = 0x8007; // not of the host's ports

// A host with two ports. The link of the first port is up. No module runs.
struct host_records : testing::Test {
    host_records() { EXPECT_TRUE(subnet.link_up("node1", "mthca0", 1)); }

    fabric::hca* plug() { return subnet.add_hca("node1", {.ports = 2, .p_keys = {first_p_key, second_p_key}}).value(); }
    fabric::gid_bytes gid_of_port(int number) { return hca->read_port(number).gids.front(); }
    std::string title(int port)
    {
        return "the record of " + records::gid_text(from_wire(std::bit_cast<wire_gid_t>(gid_of_port(port)))) +
               " that the host has left at the SA";
    }

    // Gives these records, and no others, to the SA. Runs `call` while `fault`, which may be null, is in effect.
    // Returns the result of `call`.
    template <class call_t>
    auto with(const std::vector<test::record_t>& records, const std::function<void(embedded::fault_switches&)>& fault,
              const call_t& call)
    {
        subnet.restore_records(records);
        if (fault) fault(subnet.faults);
        const auto result = call();
        subnet.faults.sa_silent = false;
        subnet.faults.duplicate_percent = 0;
        subnet.faults.jitter_ticks = 0;
        subnet.faults.answer_with(0, 0);
        sim->run_until(sim->now() + 1000);
        return result;
    }

    std::unique_ptr<exec::simulation> sim = exec::make_simulation({});
    embedded::subnet subnet{*sim};
    const world::host_plan plan = {.name = "node1", .hcas = {{.ports = 2}}};
    fabric::hca* const hca = plug();
    world::host host{*sim, {hca}, plan, world::default_module_folder(), 7};
    const test::record_t other = test::host_record(test::gid_number(97), 2);
};

// The first question is repeated before its answer comes. The answer to the repetition comes while the second question
// waits, from another client that has the same number.
TEST_F(host_records, of_one_question_do_not_answer_the_next_one)
{
    const test::record_t first = test::host_record(test::gid_number(1), 1),
                         second = test::host_record(gid_of_port(1), 2);
    subnet.restore_records({first, second});
    subnet.faults.latency_ticks = 150;
    for (const test::record_t& record : {first, second}) {
        const auto questions = world::sa_questions::open(host.machine());
        ASSERT_TRUE(questions);
        const auto answer = (*questions)
                                ->ask(umad::make_sa_request(MAD_METHOD_GET, SA_ATTR_SERVICE_RECORD,
                                                            test::mask_gid_lookup, &record, sizeof record));
        ASSERT_TRUE(answer);
        EXPECT_EQ(std::memcmp(answer->payload, &record, offsetof(ib_service_record_v2_t, service_pkey)), 0);
    }
    subnet.faults.latency_ticks = 0;
    sim->run_until(sim->now() + 1000);
}

TEST_F(host_records, that_the_host_has_left_are_deleted_and_no_others)
{
    const auto own = [this](int port, uint16_t p_key) { return test::host_record(gid_of_port(port), 1, p_key); };
    const struct {
        const char* name;
        std::vector<test::record_t> records;
        std::vector<std::string> lines;
        size_t rest; // the number of records that remain
        std::function<void(embedded::fault_switches&)> fault = nullptr;
    } rows[] = {
        {"none", {other}, {}, 1},
        {"one", {other, own(1, first_p_key)}, {"deleted " + title(1)}, 1},
        {"of the port that is down", {own(2, first_p_key)}, {"deleted " + title(2)}, 0},
        {"two P_Keys", {other, own(1, first_p_key), own(1, second_p_key)}, {"deleted " + title(1)}, 1},
        {"one of another P_Key", {own(1, first_p_key), own(1, other_p_key)}, {"deleted " + title(1)}, 0},
        {"two other P_Keys", {own(1, other_p_key), own(1, another_p_key)}, {"could not delete " + title(1)}, 2},
        {"a lost request",
         {own(1, first_p_key)},
         {"deleted " + title(1)},
         0,
         [](auto& faults) { faults.drop_next = 1; }},
        {"answers come twice, and late",
         {own(1, first_p_key), own(2, second_p_key)},
         {"deleted " + title(1), "deleted " + title(2)},
         0,
         [](auto& faults) {
             faults.duplicate_percent = 100;
             faults.jitter_ticks = 100;
         }},
        {"refused",
         {own(1, first_p_key)},
         {"the SA does not say if there is " + title(1).replace(0, 3, "a") + ": 0x0100 (it has no room)"},
         1,
         [](auto& faults) { faults.answer_with(0x0100, 1); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto lines = with(row.records, row.fault, [this] { return cli::delete_leftovers(host); });
        ASSERT_TRUE(lines) << lines.error().text;
        EXPECT_EQ(*lines, row.lines);
        EXPECT_EQ(subnet.save_records().size(), row.rest);
    }
    const uint64_t begin = sim->now();
    const auto silent = with(
        {own(1, first_p_key)}, [](auto& faults) { faults.sa_silent = true; },
        [&] {
            const auto lines = cli::delete_leftovers(host);
            EXPECT_EQ(sim->now() - begin, 1000u);
            return lines;
        });
    EXPECT_EQ(silent.error().text, "the SA does not answer");
    EXPECT_TRUE(subnet.link_down("node1", "mthca0", 1));
    EXPECT_EQ(cli::delete_leftovers(host).value(), std::vector<std::string>())
        << "without an active port, the service cannot ask the SA";
}

TEST_F(host_records, of_another_host_with_the_same_address_are_reported)
{
    const test::record_t own = test::host_record(gid_of_port(2), 1), same = test::host_record(test::gid_number(99), 1);
    const test::record_t third = test::host_record(test::gid_number(98), 1);
    const auto holder = [this] { return cli::other_holder(host, "10.0.0.1"); };
    EXPECT_EQ(with({}, nullptr, holder).value(), "");
    EXPECT_EQ(with({own, other}, nullptr, holder).value(), "");
    EXPECT_EQ(
        with({same, other}, nullptr, holder).value(),
        "the SA already holds a record of 10.0.0.1 under another GID, 0xFE800000000000000000000000000063 (node1): "
        "two hosts with one address are not found reliably. If that host is gone, 'ats sa remove "
        "0xFE800000000000000000000000000063' removes its record");
    EXPECT_EQ(with({same, third}, nullptr, holder).value(),
              "the SA already holds several records of 10.0.0.1: 'ats sa show --real --address 10.0.0.1' lists them, "
              "and 'ats sa remove GID' removes a stale one");
    EXPECT_EQ(with(
                  {same}, [](auto& faults) { faults.sa_silent = true; }, holder)
                  .error()
                  .text,
              "the SA does not answer");
    EXPECT_EQ(with(
                  {same}, [](auto& faults) { faults.answer_with(0x0100); }, holder)
                  .value(),
              "");
    EXPECT_TRUE(subnet.link_down("node1", "mthca0", 1));
    EXPECT_EQ(with({same}, nullptr, holder).value(), "") << "no port to ask through";
}

} // namespace
