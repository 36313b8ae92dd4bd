// The layer over libibumad on a fabric that ibsim simulates and OpenSM manages.
#include <unistd.h>

#include "tests/umad/fabric-of-probes.h"

namespace
{

using test::ask;
using test::ask_sa;
using test::process;
using test::times_in;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

using real_fabric = test::fabric_of_probes;

// Processor time.
long ticks_used_by(const process& probe)
{
    std::ifstream stat("/proc/" + std::to_string(probe.pid()) + "/stat");
    std::string field;
    long used = 0;
    for (int i = 1; stat >> field && i <= 15; ++i)
        if (i >= 14) used += std::stol(field);
    return used;
}

TEST_F(real_fabric, holds_a_record_that_others_find_and_its_host_deletes)
{
    start_sm();
    const auto first = start_probe("node1"), second = start_probe("node2");
    const std::string gid = gid_of(*first);
    EXPECT_THAT(ask_sa(*first, "set 10.1.0.1 node1"),
                HasSubstr("method 0x81 status 0x0000 transaction AB54A98C00000001"));
    EXPECT_THAT(net->run("sm2", {"saquery", "SR"}),
                testing::AllOf(HasSubstr(gid), HasSubstr("ServiceData8.16.........0x1")));

    EXPECT_THAT(ask_sa(*second, "get 10.1.0.1"), HasSubstr("status 0x0000 transaction AB54A98C00000001 gid " + gid));
    EXPECT_THAT(ask_sa(*second, "get-gid " + gid), HasSubstr("p_key 0xFFFF address 10.1.0.1"));
    EXPECT_THAT(ask_sa(*second, "get 10.1.0.9"), HasSubstr("status 0x0300"));

    // As the module deletes: without a P_Key. OpenSM wants it.
    EXPECT_THAT(ask_sa(*second, "delete " + gid), HasSubstr("method 0x95 status 0x0300")) << "no record of its own";
    EXPECT_THAT(ask_sa(*first, "delete " + gid), HasSubstr("method 0x95 status 0x0000"));
    EXPECT_THAT(ask_sa(*second, "get 10.1.0.1"), HasSubstr("status 0x0300"));
    EXPECT_THAT(ask(*first, "counts", "counts"), HasSubstr("timed-out 0 too-short 0 strays 0 completed 1"));
}

TEST_F(real_fabric, deletes_what_the_setting_lets_it)
{
    start_sm();
    const auto off = start_probe("node1", {"off"});
    const std::string gid = gid_of(*off);
    EXPECT_THAT(ask_sa(*off, "set 10.1.0.1 node1"), HasSubstr("status 0x0000"));
    EXPECT_THAT(ask_sa(*off, "delete " + gid), HasSubstr("method 0x95 status 0x0300"));
    net->kill(*off);
    const auto automatic = start_probe("node1");
    EXPECT_THAT(ask_sa(*automatic, "delete " + gid), HasSubstr("method 0x95 status 0x0300")) << "an earlier run's";
    net->kill(*automatic);
    const auto on = start_probe("node1", {"on"});
    EXPECT_THAT(ask_sa(*on, "delete " + gid), HasSubstr("method 0x95 status 0x0000"));
}

TEST_F(real_fabric, shows_links_going_and_an_sm_coming)
{
    const auto probe = start_probe("node1");
    EXPECT_THAT(ask(*probe, "port", "port state"), HasSubstr("state 2"));
    EXPECT_THAT(probe->output(), HasSubstr("said: ibsim0 port 1: the link is up, but no subnet manager"));
    start_sm();
    EXPECT_TRUE(probe->wait_line("up 1")) << probe->output();
    EXPECT_THAT(ask(*probe, "port", "port state"), HasSubstr("state 4 lid"));

    for (int i = 0; i < 3; ++i) {
        net->unplug("node1");
        EXPECT_TRUE(probe->wait_line("down 1")) << probe->output();
        net->plug("node1");
        EXPECT_TRUE(probe->wait_line("up 1")) << probe->output();
    }
    // The SM gives the port another LID: whatever the SA knew of it is to be told anew.
    net->console("Baselid \"node1\"[1] 40");
    EXPECT_TRUE(probe->wait_line("down 1")) << probe->output();
    EXPECT_TRUE(probe->wait_line("up 1")) << probe->output();
    EXPECT_EQ(times_in(probe->output(), "the link is down"), 3u) << probe->output();
    EXPECT_EQ(times_in(probe->output(), "\nsm 1"), 0u) << "the SM never moved";
}

TEST_F(real_fabric, follows_the_sm_to_another_port)
{
    start_sm();
    const auto standby = net->start_sm("sm2");
    ASSERT_TRUE(standby->wait_line("Entering STANDBY state", 20s)) << standby->output();
    const auto probe = start_probe("node1");
    EXPECT_THAT(ask_sa(*probe, "set 10.1.0.1 node1"), HasSubstr("arrived on 1 from 1 "));
    EXPECT_THAT(net->run("node2", {"saquery", "SR"}), HasSubstr(gid_of(*probe)));
    net->kill(*sm);
    ASSERT_TRUE(net->wait_master(*standby)) << standby->output();
    const auto change = probe->wait_line("sm 1 to ");
    ASSERT_TRUE(change) << probe->output();
    const std::string lid = change->substr(change->rfind(' ') + 1);
    EXPECT_NE(lid, "1");
    EXPECT_THAT(ask_sa(*probe, "get 10.1.0.1"), HasSubstr("from " + lid + " method 0x81 status 0x0300"))
        << "the new SA knows no records";
    EXPECT_THAT(ask_sa(*probe, "set 10.1.0.1 node1"), HasSubstr("status 0x0000"));
}

TEST_F(real_fabric, says_that_an_sa_is_silent_and_that_two_hosts_have_one_address)
{
    start_sm();
    const auto first = start_probe("node1"), second = start_probe("node2");
    EXPECT_THAT(ask_sa(*first, "set 10.1.0.1 node1"), HasSubstr("status 0x0000"));
    EXPECT_THAT(ask_sa(*second, "set 10.1.0.1 node2"), HasSubstr("status 0x0000"));
    for (int i = 0; i < 3; ++i) EXPECT_THAT(ask_sa(*first, "get 10.1.0.1"), HasSubstr("status 0x0400"));
    EXPECT_EQ(times_in(first->output(), "two or more records hold 10.1.0.1"), 1u) << first->output();

    net->lose("node2", 100); // its requests still get through, for ibsim loses what arrives
    const auto answered = [&] {
        second->write_line("get 10.1.0.1");
        return second->wait_line("answers no request", 1s).has_value();
    };
    EXPECT_TRUE(fabric_tools::wait_until(answered, 20s)) << second->output();
    net->lose("node2", 0);
    EXPECT_THAT(ask_sa(*second, "get 10.1.0.1"), HasSubstr("status 0x0400"));
    EXPECT_TRUE(second->wait_line("the SA answers again")) << second->output();
    EXPECT_EQ(times_in(second->output(), "answers no request"), 1u) << second->output();
    EXPECT_EQ(times_in(second->output(), "down 1"), 0u) << "the port itself answers all the time";
}

TEST_F(real_fabric, is_captured_so_that_tshark_finds_nothing_wrong)
{
    start_sm();
    const auto probe = start_probe("node1");
    const std::string gid = gid_of(*probe), file = net->folder() + "/taken.erf";
    ask(*probe, "tap " + file, "tapped");
    ask_sa(*probe, "set 10.1.0.1 node1");
    ask_sa(*probe, "get 10.1.0.1");
    ask_sa(*probe, "delete " + gid);
    probe->write_line("quit");
    EXPECT_EQ(probe->wait_end(), 0);
    const std::string seen = net->run("sm2", {"sh", "-c", "unset LD_PRELOAD; tshark -V -r " + file});
    if (!times_in(seen, "InfiniBand")) GTEST_SKIP() << "tshark is missing: " << seen;
    EXPECT_EQ(times_in(seen, "Encapsulation type"), 6u) << seen;
    EXPECT_THAT(seen, testing::AllOf(HasSubstr("ServiceP_Key: 0xffff"), Not(HasSubstr("Malformed"))));
    EXPECT_EQ(times_in(seen, "ServiceGID: " + gid), 5u) << "of the lookup the answer only";
}

TEST_F(real_fabric, survives_answers_that_are_none)
{
    start_sm();
    const std::string broken = net->folder() + "/broken";
    const auto breaking = [&](const std::string& how) { std::ofstream(broken) << how; };
    breaking("");
    const auto probe = start_probe(
        "node1", {}, {"BROKEN_UMAD=" + broken, "LD_PRELOAD=" BROKEN_UMAD ":" + fabric_tools::ibsim_fabric::library()});
    for (const char* how : {"short", "stray", "request", "short", "stray", "request"}) {
        breaking(how);
        probe->write_line("get 10.1.0.1");
        EXPECT_TRUE(fabric_tools::wait_until([&] { return std::filesystem::file_size(broken) == 0; }, 10s)) << how;
        // What was sent after it gets through, and under its own transaction ID.
        EXPECT_THAT(ask_sa(*probe, "get 10.1.0.2"), HasSubstr("status 0x0300"));
    }
    EXPECT_THAT(ask(*probe, "counts", "counts"), HasSubstr("too-short 2 strays 4"));
    EXPECT_EQ(times_in(probe->output(), "shorter than a record"), 1u) << probe->output();
    EXPECT_EQ(times_in(probe->output(), "answers no request under way"), 1u) << probe->output();

    breaking("gone");
    EXPECT_TRUE(probe->wait_line("the device is gone")) << probe->output();
    EXPECT_TRUE(probe->wait_line("down 1"));
    ask(*probe, "get 10.1.0.1", "not sent");
    const long before = ticks_used_by(*probe);
    EXPECT_FALSE(probe->wait_line("up 1", 1s));
    EXPECT_LT(ticks_used_by(*probe) - before, sysconf(_SC_CLK_TCK) / 5) << "a spin";
    breaking("");
    EXPECT_TRUE(probe->wait_line("up 1")) << probe->output();
    EXPECT_THAT(ask_sa(*probe, "get 10.1.0.1"), HasSubstr("status 0x0300"));
    EXPECT_EQ(times_in(probe->output(), "the device is gone"), 1u) << probe->output();
}

TEST_F(real_fabric, that_falls_silent_is_said_to_be_and_costs_nothing)
{
    start_sm();
    const auto probe = start_probe("node1");
    net->die();
    ask(*probe, "get 10.1.0.1", "not sent");
    const long before = ticks_used_by(*probe);
    EXPECT_TRUE(probe->wait_line("does not tell its state", 30s)) << probe->output();
    EXPECT_TRUE(probe->wait_line("down 1"));
    EXPECT_LT(ticks_used_by(*probe) - before, sysconf(_SC_CLK_TCK) / 5) << "a spin";
    EXPECT_EQ(times_in(probe->output(), "could not be sent"), 1u) << probe->output();
}

TEST_F(real_fabric, that_is_not_there_is_told_with_what_to_do)
{
    EXPECT_THAT(net->run("node1", {test::host_probe, "mlx5_7"}),
                HasSubstr("there is no HCA 'mlx5_7'; there is ibsim0"));
    if (std::filesystem::exists("/sys/class/infiniband")) GTEST_SKIP() << "this machine has InfiniBand";
    EXPECT_THAT(net->run("node1", {"env", "-u", "LD_PRELOAD", test::host_probe}), HasSubstr("no InfiniBand HCA"));
}

} // namespace
