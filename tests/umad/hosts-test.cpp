// Whole hosts, each an `ats run` of its own, on a fabric that ibsim simulates and OpenSM manages.
#include <fstream>

#include "tests/umad/fabric-of-probes.h"
#include "tools/fabric/ats-hosts.h"

namespace
{

using fabric_tools::address_of;
using fabric_tools::ats_host;
using fabric_tools::json;
using fabric_tools::records_at_sa;
using fabric_tools::wait_until;
using test::times_in;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using namespace std::chrono_literals;

struct hosts_on_fabric : test::fabric_of_probes {
    std::vector<std::unique_ptr<ats_host>> hosts;

    void start_hosts(int count, const std::vector<std::string>& more = {})
    {
        for (int i = 1; i <= count; ++i) hosts.push_back(std::make_unique<ats_host>(*net, i, more));
        for (const auto& host : hosts) ASSERT_TRUE(host->wait_serving()) << host->output();
    }
    testing::AssertionResult sa_comes_to_hold(size_t count, std::chrono::milliseconds longest = 30s)
    {
        json records;
        const bool holds = wait_until([&] { return (records = records_at_sa(*net, "sm2")).size() == count; }, longest);
        return (holds ? testing::AssertionSuccess() : testing::AssertionFailure()) << records.dump(2);
    }
    bool comes_to(const ats_host& host, const std::string& state)
    {
        return wait_until([&] { return host.port().value("state", "") == state; }, 30s);
    }
    // What the answer to one question says: "found" or the status. Asked again while the SA is too busy to answer.
    std::string answer(const ats_host& host, const std::string& command, const std::string& asked)
    {
        json answers;
        wait_until(
            [&] {
                answers = host.ask({command, asked});
                return answers.is_array() && answers.at(0).value("status", "") != "timed out";
            },
            30s);
        const json& first = answers.at(0);
        return first.value("status", "") == "ok" ? first.value("found", "") : first.value("status", "");
    }
    std::string gid(int host) { return hosts.at(static_cast<size_t>(host) - 1)->port().value("gid", ""); }
};

TEST_F(hosts_on_fabric, register_find_each_other_and_leave_nothing_behind)
{
    start_sm();
    start_hosts(2, {"--capture", "taken.pcap"});
    ASSERT_TRUE(sa_comes_to_hold(2));
    EXPECT_THAT(net->run("sm2", {"saquery", "SR"}), HasSubstr("DAPL Address Translation Service"));
    EXPECT_THAT(records_at_sa(*net, "sm2", {"--name", "node2"})[0], json({{"address", "10.0.0.2"},
                                                                          {"gid", gid(2)},
                                                                          {"host_name", "node2"},
                                                                          {"lease", "infinite"},
                                                                          {"p_key", "0xFFFF"}}));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), gid(2));
    EXPECT_EQ(answer(*hosts[1], "reverse", gid(1)), "10.0.0.1");
    EXPECT_EQ(answer(*hosts[1], "resolve", "10.0.0.9"), "not found");

    // Records of another client of libibumad: one of a third port, and one that disputes an address.
    const std::string third = net->run("sm1", {"ibstat", "-p"}).substr(2, 16);
    const std::string third_gid = "0xFE80000000000000" + third;
    EXPECT_EQ(net->run("sm2", {SET_RECORD, third_gid, "0xFFFF", "10.0.0.3", "other"}), "0x0000\n");
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.3"), third_gid);
    EXPECT_EQ(answer(*hosts[1], "reverse", third_gid), "10.0.0.3");
    EXPECT_EQ(net->run("sm2", {SET_RECORD, third_gid, "0xFFFF", "10.0.0.2", "other"}), "0x0000\n");
    hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
    EXPECT_TRUE(hosts[0]->running().wait_line("two or more records hold 10.0.0.2")) << hosts[0]->output();
    EXPECT_THAT(records_at_sa(*net, "sm2", {"--address", "10.0.0.2"}), SizeIs(2));

    const std::string captured = hosts[0]->folder() + "/taken.pcap";
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_comes_to_hold(1)) << "the other client's";
    const std::string seen = net->run("sm2", {"sh", "-c", "unset LD_PRELOAD; tshark -V -r " + captured});
    if (!times_in(seen, "InfiniBand")) GTEST_SKIP() << "tshark is missing: " << seen;
    EXPECT_EQ(times_in(seen, "Encapsulation type"), 12u);
    EXPECT_THAT(seen, Not(HasSubstr("Malformed")));
}

TEST_F(hosts_on_fabric, register_anew_when_their_link_comes_back)
{
    start_sm();
    start_hosts(2, {"--port-interval", "50"});
    ASSERT_TRUE(sa_comes_to_hold(2));
    const std::string own = gid(1);
    net->unplug("node1");
    ASSERT_TRUE(comes_to(*hosts[0], "Down"));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), "failed") << "there is no port to ask through";
    EXPECT_EQ(net->run("node2", {SET_RECORD, "-d", own, "0xFFFF"}), "0x0000\n"); // as if its SA had lost it
    net->plug("node1");
    ASSERT_TRUE(comes_to(*hosts[0], "Active")) << hosts[0]->output() << sm->output();
    EXPECT_TRUE(sa_comes_to_hold(2)) << "registered anew";

    hosts[1]->kill();
    EXPECT_TRUE(sa_comes_to_hold(2)) << "an SA keeps what has no end";
    EXPECT_EQ(hosts[0]->stop(), 0);
    EXPECT_TRUE(sa_comes_to_hold(1));
}

TEST_F(hosts_on_fabric, ask_another_sm_when_it_takes_over)
{
    start_sm();
    const auto standby = net->start_sm("sm2");
    ASSERT_TRUE(standby->wait_line("Entering STANDBY state", 20s)) << standby->output();
    start_hosts(2, {"--port-interval", "50"});
    ASSERT_TRUE(sa_comes_to_hold(2));
    net->kill(*sm);
    ASSERT_TRUE(net->wait_master(*standby)) << standby->output();
    for (const auto& host : hosts)
        ASSERT_TRUE(wait_until([&] { return times_in(host->output(), "the SM at LID 3") > 0; }, 30s)) << host->output();
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), "not found") << "the new SA knows no records";
    hosts[0]->ask({"set-address", "10.0.0.11"});
    hosts[1]->ask({"set-address", "10.0.0.12"});
    EXPECT_TRUE(sa_comes_to_hold(2));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.12"), gid(2));
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_comes_to_hold(0));
}

TEST_F(hosts_on_fabric, find_each_other_though_datagrams_are_lost)
{
    start_sm();
    start_hosts(2);
    ASSERT_TRUE(sa_comes_to_hold(2));
    const std::string there = gid(2);
    for (const char* node : {"node1", "node2"}) net->lose(node, 40);
    for (int i = 0; i < 5; ++i) {
        hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
        EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), there);
    }
    for (const char* node : {"node1", "node2"}) net->lose(node, 0);
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_comes_to_hold(0));
}

// Hosts look after their records once a minute.
TEST_F(hosts_on_fabric, of_seven_register_again_by_themselves_when_the_sa_forgets)
{
    start_sm();
    start_hosts(7);
    ASSERT_TRUE(sa_comes_to_hold(7));
    const std::vector<std::string> before = fabric_tools::texts_of(records_at_sa(*net, "sm2"));
    EXPECT_EQ(sm->stop(), 0);
    start_sm();
    EXPECT_TRUE(sa_comes_to_hold(0)) << "a new OpenSM has no records";
    EXPECT_TRUE(sa_comes_to_hold(7, 90s));
    EXPECT_EQ(fabric_tools::texts_of(records_at_sa(*net, "sm2")), before);
    for (int i = 1; i <= 7; ++i) EXPECT_EQ(answer(*hosts[0], "resolve", address_of(i)), gid(i));
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_comes_to_hold(0));
}

TEST_F(hosts_on_fabric, are_told_what_a_machine_lacks)
{
    const std::vector<std::string> check = {fabric_tools::ats_program(), "check"};
    EXPECT_THAT(net->run("node1", check),
                testing::AllOf(HasSubstr("ok       modules"), HasSubstr("MISSING  ibsim0 port 1"),
                               HasSubstr("start one (opensm)")));
    start_sm();
    EXPECT_THAT(net->run("node1", check), testing::AllOf(HasSubstr("active with LID"), HasSubstr("answers after"),
                                                         HasSubstr("supported"), Not(HasSubstr("MISSING"))));
    net->unplug("node1");
    EXPECT_THAT(net->run("node1", check),
                testing::AllOf(HasSubstr("the link is down"), HasSubstr("no port is active")));
    EXPECT_THAT(net->run("node1", {fabric_tools::ats_program(), "run", "--fabric", "umad", "--address", "10.0.0.1",
                                   "--hca", "mlx4_0"}),
                HasSubstr("ats: there is no HCA 'mlx4_0'; there is ibsim0"));
}

} // namespace
