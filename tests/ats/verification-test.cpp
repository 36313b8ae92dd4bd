// Each HCA asks the SA for its own record once in a period, and registers again if the answer is wrong or missing.
// Tests the times of these checks and the new registrations.
#include "host/kernel/random.h"
#include "host/stack/timers.h"
#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

// A host that checks every 10 seconds from second 60 on.
struct verification : testing::Test {
    verification()
    {
        host.control("sa_verify_period 0 0");
        w.at(59'999);
        host.control("sa_verify_period 10 0");
        w.at(60'600); // the timer that the load has started has expired, and the first check has run
        const lines requests = w.requests();
        EXPECT_EQ(requests.size(), 1u);
        next_check = std::stoull(requests.at(0)) + 10'000;
    }

    // Runs until the next check has ended, if need be by a time-out. Returns the requests to the SA. Their ticks count
    // from the beginning of the check.
    lines check()
    {
        w.requests();
        host.log();
        w.at(next_check + 2000);
        lines requests = w.requests();
        for (std::string& each : requests)
            each = std::to_string(std::stoull(each) - next_check) + each.substr(each.find(' '));
        next_check += 10'000;
        return requests;
    }

    ats_world w;
    ats_host& host = w.add_registered({.ports = {2}});
    uint64_t next_check = 0;
};

TEST_F(verification, does_not_change_a_right_record)
{
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1"));
    host.trace(trace_debug);
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1"));
    EXPECT_THAT(host.log(), Contains("DEBUG api/rarp_callback: ipaddress match"));
}

TEST_F(verification, restores_a_record_that_the_sa_has_lost_or_refuses)
{
    w.subnet.forget_all();
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1", "0 node1.1 SET node1.1 10.0.0.1 node1"));
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
    w.subnet.faults.answer_with(0x0400, 1);
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1", "0 node1.1 SET node1.1 10.0.0.1 node1"));
    host.peers().cache = {{host.gid(1), ip_of("10.0.0.1")}};
    w.subnet.forget_all();
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1", "0 node1.1 SET node1.1 10.0.0.1 node1"))
        << "IBAT's cache is not asked";
}

TEST_F(verification, restores_after_silence_when_the_request_has_timed_out)
{
    w.subnet.faults.drop_next_answers = 1;
    const lines requests = check();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "0 node1.1 GET node1.1");
    const uint64_t delay = std::stoull(requests[1]);
    EXPECT_TRUE(delay >= 1000 && delay < 2000) << delay;
    EXPECT_THAT(requests[1], HasSubstr("SET node1.1 10.0.0.1 node1"));
}

TEST_F(verification, replaces_a_wrong_address)
{
    host.trace(trace_debug);
    w.subnet.faults.sa_silent = true;
    w.at(next_check);
    w.requests();
    w.inject(host, 1, sa_reply(host.gid(1), "10.0.0.9"));
    EXPECT_THAT(w.requests(), ElementsAre(std::to_string(next_check) + " node1.1 SET node1.1 10.0.0.1 node1"));
    const lines log = host.log();
    EXPECT_THAT(log, Contains("DEBUG api/rarp_callback: ipaddresses [10.0.0.9, 10.0.0.1]"));
    EXPECT_THAT(log, Contains("DEBUG api/rarp_callback: gid & ipaddress don't match"));
}

// In an answer with an error code, the record has no meaning, even if it looks right.
TEST_F(verification, restores_after_a_refusal_with_the_right_address)
{
    w.subnet.faults.sa_silent = true;
    w.at(next_check);
    w.requests();
    w.inject(host, 1, sa_reply(host.gid(1), "10.0.0.1", 0x0300));
    EXPECT_THAT(w.requests(), ElementsAre(std::to_string(next_check) + " node1.1 SET node1.1 10.0.0.1 node1"));
}

// The answer to a Set has the host's own GID, like the answer to a check. Therefore the answer to a Set also ends a
// check whose own answer was lost.
TEST_F(verification, ends_with_the_answer_to_a_registration)
{
    w.subnet.faults.drop_next_answers = 1;
    w.at(next_check);
    w.requests();
    host.control("set_ip_addrs 10.0.0.4");
    const std::string now = std::to_string(next_check);
    w.at(next_check + 3000);
    EXPECT_THAT(w.requests(),
                ElementsAre(now + " node1.1 DELETE node1.1", now + " node1.1 SET node1.1 10.0.0.4 node1"));
}

TEST_F(verification, needs_an_active_port)
{
    host.trace(trace_debug);
    w.subnet.faults.sa_silent = true;
    w.at(next_check);
    host.link_down(1);
    w.requests();
    w.at(next_check + 2000); // the request of the check times out
    EXPECT_THAT(w.requests(), IsEmpty());
    EXPECT_THAT(host.log(), Contains("DEBUG api/rarp_callback: no active port"));
    next_check += 10'000;
    EXPECT_THAT(check(), IsEmpty());
    EXPECT_THAT(host.log(),
                ElementsAre("DEBUG api/verification_callback: data=0", "DEBUG api/calc_verify_timeout: timeout=10000",
                            "DEBUG api/verification_callback: no active port"));
    w.subnet.faults.sa_silent = false;
    host.link_up(2);
    EXPECT_THAT(check(), ElementsAre("0 node1.2 GET node1.2"));
}

// A registration holds `ats_sem` while it waits for an answer. This wait delays the lookup of one check, but the next
// check comes in time.
TEST_F(verification, keeps_its_period_after_a_delayed_lookup)
{
    const stack::timers& timers = host.machine().get<stack::timers>();
    w.at(next_check - 1);
    const size_t timer_count = timers.armed();
    w.subnet.faults.drop_next_answers = 1;
    exec::task& writer = host.start("writer", [&] { host.control("set_ip_addrs 10.0.0.4"); });
    w.at(next_check);
    EXPECT_EQ(timers.armed(), timer_count);
    host.finish(writer);
    w.at(next_check + 5000);
    EXPECT_THAT(w.requests().back(), HasSubstr("GET node1.1"));
    next_check += 10'000;
    EXPECT_THAT(check(), ElementsAre("0 node1.1 GET node1.1"));
}

TEST_F(verification, logs_what_it_could_not_send)
{
    host.trace(trace_debug);
    host.faults().fail_calls("kmalloc");
    EXPECT_THAT(check(), IsEmpty());
    EXPECT_THAT(
        host.log(),
        Contains("DEBUG api/verification_callback: call ats_rarp_send_nocache() returned ibat_stat_error (-255)"));
    w.subnet.forget_all();
    w.at(next_check - 1);
    // The check makes four kernel calls that can fail: it gets memory, the semaphore and a datagram, and posts the
    // datagram. The fifth such call gets the datagram of the Set.
    host.faults().fail_nth(5);
    w.at(next_check);
    EXPECT_EQ(host.faults().failed_call(), "gsi_dtgrm_pool_get");
    EXPECT_THAT(host.log(), Contains("DEBUG api/rarp_callback: Can't start SA set of service record   ret=-1"));
}

TEST(verification_period, of_zero_or_less_is_off_until_the_next_minute)
{
    for (const char* off : {"0", "-5"}) {
        ats_world w;
        ats_host& host = w.add_registered({.trace = trace_debug});
        host.control("sa_verify_period 1 0");
        w.at(60'600); // the first check has run; the second one will find that checks are off
        const uint64_t off_tick = std::stoull(w.requests().at(0)) + 1000;
        host.control("sa_verify_period " + std::string(off) + " 0");
        w.subnet.forget_all();
        host.log();
        w.at(off_tick + 179'999);
        EXPECT_THAT(w.requests(), IsEmpty());
        EXPECT_EQ(std::ranges::count(host.log(), "DEBUG api/verification_callback: data=0"), 3) << "once a minute";
        host.control("sa_verify_period 1 0");
        w.at(off_tick + 180'000);
        EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
        host.log();
        w.at(off_tick + 190'000);
        EXPECT_EQ(std::ranges::count(host.log(), "DEBUG api/verification_callback: data=0"), 10);
        host.unload();
        EXPECT_EQ(host.leftovers(), "");
    }
}

// The delay is the period plus a random time of at most `skew` percent of the period. The seed of the host determines
// the random numbers.
TEST(verification_period, is_lengthened_by_up_to_the_skew)
{
    struct {
        int64_t period, skew;
    } table[] = {{60, 1}, {3600, 100}, {1, 0}, {7, 33}, {2'000'000, 100}};
    ats_world w;
    ats_host& host = w.add({.trace = trace_debug}).load();
    kernel::random_source random_numbers(host_random_seed);
    const auto expected_delay = [&](int64_t period, int64_t skew) {
        uint8_t byte;
        random_numbers.fill(&byte, 1);
        return static_cast<uint64_t>(period * 1000 + (period * 1000 * skew / 100) * byte / 255);
    };
    const auto line = [](uint64_t delay) { return "DEBUG api/calc_verify_timeout: timeout=" + std::to_string(delay); };
    uint64_t delay = expected_delay(60, 1);
    EXPECT_EQ(host.log().back(), line(delay));
    for (const auto& [period, skew] : table) {
        host.control("sa_verify_period " + std::to_string(period) + " " + std::to_string(skew));
        w.at(w.sim->now() + delay);
        delay = expected_delay(period, skew);
        EXPECT_THAT(host.log(), ElementsAre("DEBUG api/verification_callback: data=0", line(delay),
                                            "DEBUG api/verification_callback: no active port"));
    }
}

} // namespace
