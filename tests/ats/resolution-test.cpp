// Lookups that IBAT and UCM ask for. Tests the requests to the SA, the answers, and the ticks at which they come. Each
// lookup must end exactly once.
#include "kernel/time.h"
#include "tests/ats/ats-world.h"
#include "timing.h"

namespace
{

using lines = std::vector<std::string>;

reverse_lookup::answer answer_at(uint64_t tick, ibat_stat_t status, const std::string& address = "0.0.0.0")
{
    return {tick, status, ip_of(address)};
}

struct resolution : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered();
    ats_host& other = w.add_registered({.name = "node2", .address = "10.0.0.2"});
    reverse_lookup lookup;
};

TEST_F(resolution, maps_each_code_of_the_sa_to_a_status)
{
    const std::map<int, ibat_stat_t> table = {
        {0, ibat_stat_ok},    {1, ibat_stat_not_found}, {2, ibat_stat_error}, {3, ibat_stat_not_found},
        {4, ibat_stat_error}, {5, ibat_stat_not_found}, {6, ibat_stat_error}, {7, ibat_stat_error},
        {9, ibat_stat_error}, {255, ibat_stat_error}};
    w.subnet.faults.sa_silent = true;
    host.trace(trace_debug);
    for (const auto& [code, status] : table) {
        SCOPED_TRACE(code);
        reverse_lookup each;
        host.reverse({7, 7}, each);
        host.log();
        w.inject(host, 1, sa_reply({7, 7}, "10.0.0.7", static_cast<uint16_t>(code << 8)));
        EXPECT_THAT(each.answers, ElementsAre(answer_at(0, status, "10.0.0.7")));
        const std::string bad = "DEBUG api/ats_process_rarp_data: bad SA status " + std::to_string(code);
        EXPECT_EQ(std::ranges::count(host.log(), bad), code > 6 ? 1 : 0);
    }
}

TEST_F(resolution, one_answer_ends_all_requests_for_its_gid_the_newest_first)
{
    w.subnet.faults.sa_silent = true;
    reverse_lookup first, second, third, other_gid, other_prefix;
    host.reverse({7, 7}, first);
    host.reverse({8, 7}, other_gid);
    host.reverse({7, 8}, other_prefix);
    host.reverse({7, 7}, second);
    host.reverse({7, 7}, third);
    host.trace(trace_debug);
    w.inject(host, 1, sa_reply({7, 7}, "10.0.0.7"));
    for (const reverse_lookup* each : {&first, &second, &third})
        EXPECT_THAT(each->answers, ElementsAre(answer_at(0, ibat_stat_ok, "10.0.0.7")));
    EXPECT_LT(third.order, second.order);
    EXPECT_LT(second.order, first.order);
    for (const reverse_lookup* each : {&other_gid, &other_prefix}) EXPECT_THAT(each->answers, IsEmpty());
    EXPECT_THAT(host.log(), Contains("DEBUG api/ats_process_rarp_data: found 3 maching RARP reqs for gid "
                                     "0x00000000000000070000000000000007"));
}

TEST_F(resolution, other_answers_do_not_end_a_request)
{
    w.subnet.faults.answer_with(MAD_STATUS_BUSY, 1);
    host.reverse({7, 7}, lookup);
    w.inject(host, 1, sa_reply({7, 7}, "10.0.0.7", 0x0300, MAD_METHOD_DELETE));
    w.inject(host, 1, sa_reply({7, 7}, "10.0.0.7", 0, MAD_METHOD_GET, SA_ATTR_PATH_RECORD));
    w.at(2000);
    EXPECT_THAT(lookup.answers, ElementsAre(answer_at(1000, ibat_stat_timeout)));
}

// The request timer runs once a second and ends the requests that are at least one second old. Another timer, whose
// function sleeps, must not delay the request timer. The second run begins just before the tick count exceeds 32 bits,
// the third one just before it exceeds 31 bits.
TEST(time_out, comes_at_the_exact_tick)
{
    timing_t sleeper{};
    sleeper.function = [](unsigned long) { schedule_timeout_uninterruptible(3000); };
    for (const uint64_t begin : {uint64_t{0}, uint64_t{0xFFFFFE00}, uint64_t{0x7FFFFFFF}}) {
        SCOPED_TRACE(testing::Message() << "starting at tick " << begin);
        ats_world w({.start_tick = begin});
        ats_host& host = w.add_registered({.trace = trace_func});
        w.subnet.faults.sa_silent = true;
        sleeper.expires = begin + 1;
        host.run([&] { add_timing(&sleeper); });
        reverse_lookup lookup_0, lookup_1, other_lookup_1, lookup_1000;
        host.reverse({7, 7}, lookup_0);
        w.at(1);
        host.reverse({7, 7}, lookup_1);
        host.reverse({8, 7}, other_lookup_1);
        w.at(999);
        EXPECT_THAT(lookup_0.answers, IsEmpty());
        w.at(1000);
        EXPECT_THAT(lookup_0.answers, ElementsAre(answer_at(begin + 1000, ibat_stat_timeout)));
        EXPECT_THAT(lookup_1.answers, IsEmpty()) << "999 ticks old";
        host.reverse({7, 7}, lookup_1000);
        w.at(1999);
        EXPECT_THAT(lookup_1.answers, IsEmpty());
        w.at(2000);
        EXPECT_THAT(lookup_1.answers, ElementsAre(answer_at(begin + 2000, ibat_stat_timeout)));
        EXPECT_THAT(lookup_1000.answers, ElementsAre(answer_at(begin + 2000, ibat_stat_timeout)));
        EXPECT_LT(lookup_1000.order, other_lookup_1.order) << "the newest first";
        EXPECT_LT(other_lookup_1.order, lookup_1.order);
    }
}

TEST_F(resolution, ends_once_however_late_the_answer_is)
{
    w.subnet.faults.latency_ticks = 1250;
    host.reverse(other.gid(1), lookup);
    w.at(2400);
    EXPECT_THAT(lookup.answers, ElementsAre(answer_at(1000, ibat_stat_timeout)));
    reverse_lookup second_lookup;
    host.reverse(other.gid(1), second_lookup);
    w.at(6000);
    EXPECT_THAT(lookup.answers, ElementsAre(answer_at(1000, ibat_stat_timeout)));
    EXPECT_THAT(second_lookup.answers, ElementsAre(answer_at(2500, ibat_stat_ok, "10.0.0.2")))
        << "the answer to the first request ends the second one";
}

TEST_F(resolution, of_twenty_at_once_four_find_no_datagram)
{
    std::vector<reverse_lookup> lookups(20);
    std::map<ibat_stat_t, int> first_statuses, last_statuses;
    host.run([&] {
        for (uint64_t i = 0; i < lookups.size(); ++i) ++first_statuses[host.reverse({i, 7}, lookups[i])];
    });
    EXPECT_THAT(first_statuses, ElementsAre(std::pair(ibat_stat_error, 4), std::pair(ibat_stat_pending, 16)));
    EXPECT_THAT(host.log(), testing::SizeIs(8)); // two lines for each of the four
    w.at(2000);
    for (const reverse_lookup& each : lookups) ++last_statuses[each.answers.at(0).status];
    EXPECT_THAT(last_statuses, ElementsAre(std::pair(ibat_stat_not_found, 16), std::pair(ibat_stat_timeout, 4)));
}

TEST_F(resolution, without_an_active_port_fails_and_still_times_out)
{
    host.link_down(1);
    EXPECT_EQ(host.resolve("10.0.0.2"), ibat_stat_error);
    EXPECT_EQ(host.reverse(other.gid(1), lookup), ibat_stat_error);
    const std::string rest = " there is no active port, Check your link!";
    EXPECT_THAT(host.log(), ElementsAre("ERROR sa/ats_sa_arp_send: ATS - Can't Send arp" + rest,
                                        "ERROR sa/ats_sa_rarp_send: ATS - Can't Send rarp" + rest));
    w.at(5000);
    EXPECT_THAT(lookup.answers, ElementsAre(answer_at(1000, ibat_stat_timeout)));
    EXPECT_THAT(w.requests(), IsEmpty());
}

// The SA is silent, so a registration holds `ats_sem` for 60 ticks. A lookup waits until `ats_sem` is free or a signal
// comes.
TEST_F(resolution, waits_for_a_registration_or_a_signal)
{
    w.subnet.faults.sa_silent = true;
    exec::task& writer = host.start("update", [&] { host.control("set_host_name slow"); });
    w.at(10);
    ibat_stat_t first_status{}, second_status{};
    exec::task& first = host.start("first", [&] { first_status = host.resolve("10.0.0.2"); });
    exec::task& second = host.start("second", [&] { second_status = host.resolve("10.0.0.2"); });
    w.at(30);
    exec::send_signal(first);
    w.at(31);
    EXPECT_THAT(host.log(), ElementsAre("ERROR sa/ats_sa_arp_send: down_interruptible is not OK"));
    w.at(100);
    for (exec::task* each : {&writer, &first, &second}) host.finish(*each);
    EXPECT_EQ(first_status, ibat_stat_error);
    EXPECT_EQ(second_status, ibat_stat_ok);
    const lines requests = w.requests();
    EXPECT_THAT(lines(requests.end() - 2, requests.end()),
                ElementsAre("60 node1.1 SET node1.1 10.0.0.1 slow", "60 node1.1 GET 10.0.0.2"));
}

} // namespace
