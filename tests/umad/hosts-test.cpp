// Complete hosts on a fabric that ibsim simulates and OpenSM manages. Each host is a separate process, `ats run`.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <regex>
#include <sstream>
#include <unistd.h>

#include "tools/fabric/ats-hosts.h"

namespace
{

using fabric_tools::address_of;
using fabric_tools::count_records;
using fabric_tools::fabric_host;
using fabric_tools::json;
using fabric_tools::process;
using fabric_tools::records_at_sa;
using fabric_tools::wait_until;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using namespace std::chrono_literals;

constexpr unsigned long exactly = 0x80; // the selector "exactly" in the MTU, rate and lifetime of a PathRecord

size_t times_in(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t place = text.find(part); place != std::string::npos; place = text.find(part, place + part.size()))
        ++count;
    return count;
}

std::string text_of(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The processor time of the program, in clock ticks of the system.
long ticks_used_by(const fabric_tools::process& program)
{
    std::ifstream stat("/proc/" + std::to_string(program.pid()) + "/stat");
    std::string field;
    long ticks = 0;
    for (int i = 1; stat >> field && i <= 15; ++i)
        if (i >= 14) ticks += std::stol(field);
    return ticks;
}

struct hosts_on_fabric : testing::Test {
    std::optional<fabric_tools::ibsim_fabric> net;
    std::unique_ptr<process> sm;
    std::vector<std::unique_ptr<fabric_host>> hosts;

    void SetUp() override
    {
        if (const auto checked = fabric_tools::ibsim_fabric::check_programs(); !checked)
            GTEST_SKIP() << checked.error().text;
        net.emplace(fabric_tools::node_names(7, {"sm1", "sm2"}));
    }

    // Fails if the output of any program contains a sanitizer's report. If the test has killed the program, its exit
    // code does not show that there was a report.
    void TearDown() override
    {
        if (!net) return;
        if (HasFailure()) std::cerr << "ibsim said:\n" << net->output();
        for (const auto& file : std::filesystem::recursive_directory_iterator(net->folder()))
            if (file.path().filename() == "out") {
                EXPECT_THAT(text_of(file.path()), Not(HasSubstr("Sanitizer:"))) << file.path();
            }
    }

    void start_sm(const std::string& node = "sm1", const std::string& settings = "")
    {
        sm = net->start_sm(node, {.settings = settings});
        ASSERT_TRUE(net->wait_master(*sm)) << sm->output();
    }

    // Kills the master on sm1, and waits until the standby on sm2 is the master. Rarely, ibsim loses an answer for
    // which an OpenSM then waits for ever; in this case, starts another one on sm2.
    void hand_over_to(fabric_tools::process& standby)
    {
        net->kill(*sm);
        if (net->wait_master(standby)) return;
        net->kill(standby);
        start_sm("sm2");
    }

    void start_hosts(int count, const std::vector<std::string>& options = {})
    {
        for (int i = 1; i <= count; ++i) hosts.push_back(std::make_unique<fabric_host>(*net, i, options));
        for (const auto& host : hosts) ASSERT_TRUE(host->wait_serving()) << host->output();
    }
    // Waits until the SA has `count` records. Fails if the SA does not reach this number in time, or does not answer.
    testing::AssertionResult sa_reaches_count(int count, std::chrono::milliseconds timeout = 30s)
    {
        if (wait_until([&] { return count_records(*net, "sm2") == count; }, timeout))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "the SA's records: " << records_at_sa(*net, "sm2").dump(2);
    }
    bool reaches_state(const fabric_host& host, const std::string& state)
    {
        return wait_until([&] { return host.port().value("state", "") == state; }, 30s);
    }
    // Asks a host one question. Repeats the question if it times out. Returns the address or GID in the answer, or the
    // status if the answer has neither.
    std::string answer(const fabric_host& host, const std::string& command, const std::string& question)
    {
        json answers;
        wait_until(
            [&] {
                answers = host.ask({command, question});
                return answers.is_array() && answers.at(0).value("status", "") != "timed out";
            },
            30s);
        const json& first = answers.at(0);
        return first.value("status", "") == "ok" ? first.value("found", "") : first.value("status", "");
    }
    std::string gid(int host) { return hosts.at(static_cast<size_t>(host) - 1)->port().value("gid", ""); }
    int lid(int host) { return hosts.at(static_cast<size_t>(host) - 1)->port().value("lid", 0); }

    // The path to 10.0.0.2 that ib_acme gets from host 1, for example "4 to 5, SL 0", or "none".
    std::string path_of_ib_acme()
    {
        process program({.arguments = {"ib_acme", "-S", hosts[0]->folder() + "/acm", "-f", "i", "-d", "10.0.0.2"},
                         .output = net->new_file("ib_acme")});
        program.wait_end(60s);
        const std::string output = program.output();
        std::smatch found;
        const std::regex fields("dlid: (\\d+)\\s+slid: (\\d+)[\\s\\S]*\\ssl: (\\d+)");
        if (!std::regex_search(output, found, fields)) return "none";
        return found.str(2) + " to " + found.str(1) + ", SL " + found.str(3);
    }
};

TEST_F(hosts_on_fabric, register_find_each_other_and_leave_nothing_behind)
{
    start_sm();
    start_hosts(2, {"--capture", "host.pcap"});
    ASSERT_TRUE(sa_reaches_count(2));
    EXPECT_THAT(net->run("sm2", {"saquery", "SR"}), HasSubstr("DAPL Address Translation Service"));
    EXPECT_THAT(records_at_sa(*net, "sm2", {"--name", "node2"})[0], json({{"address", "10.0.0.2"},
                                                                          {"gid", gid(2)},
                                                                          {"gid6", hosts[1]->port().at("gid6")},
                                                                          {"host_name", "node2"},
                                                                          {"lease", "infinite"},
                                                                          {"p_key", "0xFFFF"}}));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), gid(2));
    EXPECT_EQ(answer(*hosts[1], "reverse", gid(1)), "10.0.0.1");
    EXPECT_EQ(answer(*hosts[1], "resolve", "10.0.0.9"), "not found");
    // The client has no port here, so the service must ask the SA.
    EXPECT_EQ(answer(*hosts[0], "resolve", "node2"), gid(2));
    EXPECT_EQ(answer(*hosts[0], "resolve", "node"), "not found");

    // The program set-record registers a third port: first with an address of its own, then with the address of node2.
    const std::string third = net->run("sm1", {"ibstat", "-p"}).substr(2, 16);
    const std::string third_gid = "0xFE80000000000000" + third;
    EXPECT_EQ(net->run("sm2", {SET_RECORD, third_gid, "0xFFFF", "10.0.0.3", "other"}), "0x0000\n");
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.3"), third_gid);
    EXPECT_EQ(answer(*hosts[1], "reverse", third_gid), "10.0.0.3");
    EXPECT_EQ(net->run("sm2", {SET_RECORD, third_gid, "0xFFFF", "10.0.0.2", "node2"}), "0x0000\n");
    hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
    EXPECT_TRUE(hosts[0]->program().wait_line("two or more records hold 10.0.0.2")) << hosts[0]->output();
    EXPECT_THAT(records_at_sa(*net, "sm2", {"--address", "10.0.0.2"}), SizeIs(2));
    EXPECT_EQ(answer(*hosts[0], "resolve", "node2"), "failed");
    EXPECT_THAT(hosts[0]->ask({"resolve", "node2"}).at(0).value("reason", ""), HasSubstr("'ats sa show --name node2'"));
    EXPECT_THAT(records_at_sa(*net, "sm2", {"--name", "node2"}), SizeIs(2));

    const std::string capture_path = hosts[0]->folder() + "/host.pcap";
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_reaches_count(1)) << "the record of set-record stays";
    const std::string decoded = net->run("sm2", {"sh", "-c", "unset LD_PRELOAD; tshark -V -r " + capture_path});
    if (!times_in(decoded, "InfiniBand")) GTEST_SKIP() << "tshark is missing: " << decoded;
    EXPECT_GE(times_in(decoded, "Encapsulation type"), 24u) << "more if a request was repeated";
    EXPECT_THAT(decoded, Not(HasSubstr("Malformed")));
}

// Debian's ib_acme and librdmacm ask the host, and must get the LID of the right port.
TEST_F(hosts_on_fabric, give_programs_of_librdmacm_the_route_to_the_right_lid)
{
    start_sm();
    start_hosts(2, {"--acm-socket", "acm"});
    ASSERT_TRUE(sa_reaches_count(2));
    const std::string socket = hosts[0]->folder() + "/acm";
    // The host learns its own address from the SA's answer to its registration. If this answer is lost, the host learns
    // its address a minute later, from the check of its own record.
    const auto endpoints = [&] { return net->run("sm2", {"ib_acme", "-S", socket, "-e"}); };
    const auto has_address = [&] { return times_in(endpoints(), ",ats,10.0.0.1,node1") > 0; };
    ASSERT_TRUE(wait_until(has_address, 120s)) << endpoints();
    const std::string lid = std::to_string(hosts[1]->port().value("lid", 0));
    for (const std::vector<std::string>& destination : {std::vector<std::string>{"i", "-d", "10.0.0.2"},
                                                        {"i", "-d", "10.0.0.2", "-c"},
                                                        {"n", "-d", "node2"},
                                                        {"n", "-s", "node1", "-d", "node2", "-c"},
                                                        {"i", "-s", "10.0.0.1", "-d", "10.0.0.2", "-v"}}) {
        std::vector<std::string> command = {"ib_acme", "-S", socket, "-f"};
        command.insert(command.end(), destination.begin(), destination.end());
        EXPECT_THAT(net->run("sm2", command), AllOf(HasSubstr("dlid: " + lid + "\n"), HasSubstr("return status 0x0")));
    }
#ifdef RDMA_ROUTES
    process program({.arguments = {RDMA_ROUTES},
                     .environment = {"LD_PRELOAD=" VERBS_STAND_IN, "ACM_SOCKET=" + socket},
                     .output = net->new_file("routes")});
    program.write_line("10.0.0.2");
    EXPECT_TRUE(program.wait_line("10.0.0.2 DLID " + lid)) << program.output();
    EXPECT_EQ(sm->stop(), 0); // the SA is silent: a time-out ends the wait
    EXPECT_EQ(hosts[0]->ask({"resolve", "node2"}).at(0).value("status", ""), "timed out");
    program.write_line("10.0.0.9");
    EXPECT_TRUE(program.wait_line("10.0.0.9 none")) << program.output();
#endif
}

// The SM sm1 gives its paths SL 3. The SM sm2, which replaces sm1 at the end, gives its paths SL 0.
TEST_F(hosts_on_fabric, give_programs_the_present_path_and_no_outdated_one)
{
    const std::string partitions = net->folder() + "/partitions";
    std::ofstream(partitions) << "Default=0x7fff, sl=3, ipoib: ALL=full;\n";
    const std::string settings = "qos TRUE\npartition_config_file " + partitions;
    start_sm("sm1", settings);
    start_hosts(2, {"--port-interval", "50", "--acm-socket", "acm"});
    ASSERT_TRUE(sa_reaches_count(2));

    const std::string first_path = std::to_string(lid(1)) + " to " + std::to_string(lid(2)) + ", SL 3";
    const json path = hosts[0]->ask({"path", "10.0.0.2"}).at(0);
    const std::string record =
        net->run("sm2", {"saquery", "--src-to-dst", std::to_string(lid(1)) + ":" + std::to_string(lid(2))});
    for (const auto& [field, base, value] : std::vector<std::tuple<const char*, int, unsigned long>>{
             {"dlid", 10, path.at("dlid")},
             {"slid", 10, path.at("slid")},
             {"pkey", 16, std::stoul(path.at("p_key").get<std::string>(), nullptr, 16)},
             {"sl", 16, path.at("sl")},
             {"mtu", 16, path.at("mtu").get<unsigned long>() | exactly},
             {"rate", 16, path.at("rate").get<unsigned long>() | exactly},
             {"pkt_life", 16, path.at("packet_lifetime").get<unsigned long>() | exactly}}) {
        std::smatch found;
        ASSERT_TRUE(std::regex_search(record, found, std::regex("\\s" + std::string(field) + "\\.+(\\w+)"))) << record;
        EXPECT_EQ(std::stoul(found.str(1), nullptr, base), value) << field;
    }

    const auto path_becomes = [&](const std::string& expectation) {
        std::string last;
        return wait_until([&] { return (last = path_of_ib_acme()) == expectation; }, 30s)
                   ? testing::AssertionSuccess()
                   : testing::AssertionFailure() << last << " instead of " << expectation << "\n"
                                                 << hosts[0]->output();
    };
    EXPECT_EQ(path_of_ib_acme(), first_path);
    net->unplug("node1");
    EXPECT_TRUE(path_becomes("none"));
    net->plug("node1");
    EXPECT_TRUE(path_becomes(first_path));

    EXPECT_EQ(sm->stop(), 0);
    EXPECT_EQ(path_of_ib_acme(), first_path) << "paths stay valid while there is no SM";
    for (const int number : {1, 2}) // gives both ports other LIDs; the next SM keeps them
        net->console("Baselid \"" + fabric_tools::node_name(number) + "\"[1] " + std::to_string(20 + number));
    EXPECT_TRUE(path_becomes("none"));
    start_sm("sm1", settings);
    EXPECT_TRUE(path_becomes("21 to 22, SL 3"));

    const auto standby = net->start_sm("sm2");
    ASSERT_TRUE(standby->wait_line("Entering STANDBY state", 20s)) << standby->output();
    hand_over_to(*standby);
    EXPECT_TRUE(path_becomes("21 to 22, SL 0"));
    standby->stop();
}

TEST_F(hosts_on_fabric, wait_for_an_sm_and_register_anew_when_their_link_comes_back)
{
    start_hosts(2, {"--port-interval", "50"});
    start_sm();
    ASSERT_TRUE(sa_reaches_count(2));
    EXPECT_EQ(times_in(hosts[0]->output(), "the link is up, but no subnet manager"), 1u) << hosts[0]->output();
    const std::string own = gid(1);
    net->unplug("node1");
    ASSERT_TRUE(reaches_state(*hosts[0], "Down"));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), "failed") << "there is no port to ask through";
    EXPECT_EQ(net->run("node2", {SET_RECORD, "-d", own, "0xFFFF"}), "0x0000\n"); // the SA loses the record
    net->plug("node1");
    ASSERT_TRUE(reaches_state(*hosts[0], "Active")) << hosts[0]->output() << sm->output();
    EXPECT_TRUE(sa_reaches_count(2)) << "registered anew";

    const std::string departed = gid(2), departed_lid = std::to_string(lid(2));
    hosts[1]->kill();
    EXPECT_TRUE(sa_reaches_count(2)) << "the SA keeps a record with an infinite lease";
    net->unplug("node2");
    const auto remove = [&](const std::string& record_gid) {
        return net->run("sm2", {fabric_tools::ats_program(), "sa", "remove", record_gid, "--socket",
                                net->folder() + "/node1.sock"});
    };
    const auto is_known = [&] { return times_in(net->run("sm2", {"saquery", "NR", departed_lid}), "node2") > 0; };
    ASSERT_TRUE(wait_until([&] { return !is_known(); }, 60s)) << "the SM has not seen that node2 is gone";
    hosts[0]->ask({"control", "sa_verify_period", "0", "0"}); // so the host does not register again
    EXPECT_THAT(remove(departed), AllOf(HasSubstr(departed + "  0xFFFF  10.0.0.2  node2"), Not(HasSubstr("Note"))));
    EXPECT_THAT(remove(departed), HasSubstr("the SA holds no record of " + departed));
    EXPECT_THAT(remove(own), HasSubstr("Note: the service on this machine has registered this GID"));
    EXPECT_TRUE(sa_reaches_count(0));
    EXPECT_EQ(hosts[0]->stop(), 0);
}

TEST_F(hosts_on_fabric, ask_another_sm_when_it_takes_over)
{
    start_sm();
    const auto standby = net->start_sm("sm2");
    ASSERT_TRUE(standby->wait_line("Entering STANDBY state", 20s)) << standby->output();
    start_hosts(2, {"--port-interval", "50"});
    ASSERT_TRUE(sa_reaches_count(2));
    hand_over_to(*standby);
    for (const auto& host : hosts)
        ASSERT_TRUE(wait_until([&] { return times_in(host->output(), "the SM at LID 3") > 0; }, 30s)) << host->output();
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), "not found") << "the new SA knows no records";
    EXPECT_TRUE(hosts[0]->ask({"set-address", "10.0.0.11"}).contains("done")) << "the new SA confirms it";
    EXPECT_TRUE(hosts[1]->ask({"set-address", "10.0.0.12"}).contains("done"));
    EXPECT_TRUE(sa_reaches_count(2));
    EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.12"), gid(2));
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_reaches_count(0));
}

TEST_F(hosts_on_fabric, find_each_other_though_datagrams_are_lost)
{
    start_sm();
    const std::string third_gid = "0xFE80000000000000" + net->run("sm1", {"ibstat", "-p"}).substr(2, 16);
    ASSERT_EQ(net->run("sm2", {SET_RECORD, third_gid, "0xFFFF", "10.0.0.1", "other"}), "0x0000\n");
    start_hosts(2, {"--sa-delete-pkey", "off"});
    ASSERT_TRUE(sa_reaches_count(3));
    EXPECT_EQ(times_in(hosts[0]->output(), "record of 10.0.0.1 under another GID, " + third_gid + " (other)"), 1u);
    EXPECT_THAT(hosts[1]->output(), Not(HasSubstr("under another GID")));
    const std::string other_gid = gid(2);
    for (const char* node : {"node1", "node2"}) net->lose(node, 40);
    for (int i = 0; i < 5; ++i) {
        hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
        EXPECT_EQ(answer(*hosts[0], "resolve", "10.0.0.2"), other_gid);
    }
    const auto is_silent = [&] {
        hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
        return times_in(hosts[0]->output(), "answers no request") == 1;
    };
    net->lose("node1", 100); // its requests still reach the SA, because ibsim drops only packets that arrive at node1
    EXPECT_TRUE(wait_until(is_silent, 30s)) << hosts[0]->output();
    // The port asks itself for its state. Its answers are lost too.
    EXPECT_TRUE(hosts[0]->program().wait_line("the port does not report its state any more")) << hosts[0]->output();
    for (const char* node : {"node1", "node2"}) net->lose(node, 0);
    ASSERT_TRUE(reaches_state(*hosts[0], "Active")) << hosts[0]->output();
    hosts[0]->ask({"resolve", "--verify", "10.0.0.2"});
    EXPECT_TRUE(hosts[0]->program().wait_line("the SA answers again")) << hosts[0]->output();

    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    // A Delete without a P_Key finds no record. Therefore the modules leave their records behind.
    for (const auto& host : hosts) EXPECT_EQ(times_in(host->output(), "that the host has left at the SA"), 1u);
    EXPECT_TRUE(sa_reaches_count(1)) << "the record of set-record stays";

    fabric_host failing(*net, 3,
                        {"--sa-delete-pkey", "off", "--mount", "/dev/null"}); // registers, and then fails to mount
    EXPECT_EQ(failing.program().wait_end(30s), 2);
    EXPECT_EQ(times_in(failing.output(), "that the host has left at the SA"), 1u) << failing.output();
    EXPECT_TRUE(sa_reaches_count(1));
}

TEST_F(hosts_on_fabric, survive_malformed_answers_a_lost_hca_and_a_silent_fabric)
{
    start_sm();
    const std::string fault_file = net->folder() + "/fault";
    const auto set_fault = [&](const std::string& fault) { std::ofstream(fault_file) << fault; };
    set_fault("");
    const std::vector<std::string> environment = {
        "BROKEN_UMAD=" + fault_file, "LD_PRELOAD=" BROKEN_UMAD ":" + fabric_tools::ibsim_fabric::library()};
    const std::string recording = net->folder() + "/recording";
    const std::vector<std::string> options = {"--port-interval", "50", "--record", recording};
    hosts.push_back(std::make_unique<fabric_host>(*net, 1, options, environment));
    fabric_host& host = *hosts[0];
    ASSERT_TRUE(sa_reaches_count(1)) << host.output();
    int unused_number = 100;
    for (const char* fault : {"short", "stray", "request", "short", "stray", "request"}) {
        set_fault(fault);
        EXPECT_EQ(answer(host, "resolve", address_of(++unused_number)), "not found") << fault;
        EXPECT_EQ(text_of(fault_file), "") << fault << " never happened";
    }
    EXPECT_EQ(times_in(host.output(), "shorter than a record"), 1u) << host.output();
    EXPECT_EQ(times_in(host.output(), "answers no request in flight"), 1u) << host.output();

    set_fault("gone");
    EXPECT_TRUE(reaches_state(host, "Down")) << host.output();
    EXPECT_EQ(answer(host, "resolve", "10.0.0.99"), "failed");
    const long ticks_before = ticks_used_by(host.program());
    EXPECT_FALSE(host.program().wait_line("the link is up", 1s));
    EXPECT_LT(ticks_used_by(host.program()) - ticks_before, sysconf(_SC_CLK_TCK) / 5)
        << "the program polls without a pause";
    set_fault("");
    EXPECT_TRUE(reaches_state(host, "Active")) << host.output();
    EXPECT_EQ(answer(host, "resolve", "10.0.0.99"), "not found");
    EXPECT_EQ(times_in(host.output(), "the device is gone"), 1u) << host.output();

    set_fault("deaf");
    const auto client = net->start("node2", "tool", {fabric_tools::ats_program(), "sa", "show", "--real"}, environment);
    EXPECT_EQ(client->wait_end(), 1);
    EXPECT_THAT(client->output(), HasSubstr("ats: ibsim0 port 1 cannot be read from: Input/output error"));
    set_fault("");

    net->console("Baselid \"node1\"[1] 40"); // another LID, for which this SM has no route
    EXPECT_TRUE(wait_until([&] { return host.port().value("lid", 0) == 40; }, 30s)) << host.output();
    for (const char* part :
         {R"("lid":40,"sm_lid")", R"("event":"down","cause":"LID change")", R"("event":"up","cause":"LID change")"})
        EXPECT_TRUE(wait_until([&] { return text_of(recording).find(part) != std::string::npos; }, 30s)) << part;

    net->kill_simulator();
    const long ticks_at_death = ticks_used_by(host.program());
    EXPECT_TRUE(host.program().wait_line("does not report its state", 30s)) << host.output();
    EXPECT_LT(ticks_used_by(host.program()) - ticks_at_death, sysconf(_SC_CLK_TCK) / 5)
        << "the program polls without a pause";
}

// Each host checks its record once a minute.
TEST_F(hosts_on_fabric, register_again_by_themselves_when_the_sa_forgets)
{
    start_sm();
    start_hosts(7);
    ASSERT_TRUE(sa_reaches_count(7));
    const std::vector<std::string> first_records = fabric_tools::texts_of(records_at_sa(*net, "sm2"));
    EXPECT_EQ(sm->stop(), 0);
    start_sm();
    EXPECT_TRUE(sa_reaches_count(0)) << "a new OpenSM has no records";
    EXPECT_TRUE(sa_reaches_count(7, 90s));
    EXPECT_EQ(fabric_tools::texts_of(records_at_sa(*net, "sm2")), first_records);
    for (int i = 1; i <= 7; ++i) EXPECT_EQ(answer(*hosts[0], "resolve", address_of(i)), gid(i));
    for (const auto& host : hosts) EXPECT_EQ(host->stop(), 0) << host->output();
    EXPECT_TRUE(sa_reaches_count(0));
}

// `ats check` reports what the machine lacks.
TEST_F(hosts_on_fabric, get_a_report_of_what_a_machine_lacks)
{
    const std::vector<std::string> check = {fabric_tools::ats_program(), "check"};
    EXPECT_THAT(net->run("node1", check),
                testing::AllOf(HasSubstr("ok       modules"), HasSubstr("MISSING  ibsim0 port 1"),
                               HasSubstr("start one (opensm)")));
    start_sm();
    EXPECT_THAT(net->run("node1", check), testing::AllOf(HasSubstr("active with LID"), HasSubstr("answers after"),
                                                         HasSubstr("supported"), Not(HasSubstr("MISSING"))));
    const std::string config = net->folder() + "/ats.toml";
    std::ofstream(config) << "[fabric]\nkind = \"umad\"\n[[host]]\n[[host.hca]]\nname = \"mlx4_0\"\n";
    EXPECT_THAT(net->run("node1", {check[0], "check", "--config", config, "--address", "10.0.0.1"}),
                testing::AllOf(HasSubstr("1 host on a real fabric"),
                               HasSubstr("MISSING  HCA              there is no HCA 'mlx4_0'; there is ibsim0"),
                               HasSubstr("note     ibsim0"), Not(HasSubstr("ibsim0 port")), Not(HasSubstr("SA "))));
    net->unplug("node1");
    EXPECT_THAT(net->run("node1", check),
                testing::AllOf(HasSubstr("the link is down"), HasSubstr("before a port is active")));
    const auto run_host = [&](std::vector<std::string> words, const std::vector<std::string>& options) {
        for (const char* word : {"run", "--fabric", "umad", "--address", "10.0.0.1"}) words.emplace_back(word);
        words.insert(words.end(), options.begin(), options.end());
        return net->run("node1", words);
    };
    const std::string ats = fabric_tools::ats_program();
    EXPECT_THAT(run_host({ats}, {"--hca", "mlx4_0"}), HasSubstr("ats: there is no HCA 'mlx4_0'; there is ibsim0"));
    if (std::filesystem::exists("/sys/class/infiniband")) GTEST_SKIP() << "this machine has InfiniBand";
    EXPECT_THAT(run_host({"env", "-u", "LD_PRELOAD", ats}, {}), HasSubstr("no InfiniBand HCA"));
}

} // namespace
