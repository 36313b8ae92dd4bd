// The whole life of one `ats run`, in one scenario. Commands of `ats` ask the service, programs use the mounted files,
// and finally the service is stopped. A second test stops a service while its hosts are starting.
#include <fcntl.h>
#include <sys/wait.h>

#include "cli/commands/show.h"
#include "cli/mount/proc-mount.h"
#include "cli/socket/socket.h"
#include "tests/cli/mounting.h"
#include "tests/cli/program.h"
#include "tools/clients/raw-connection.h"

namespace
{

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* gid_of_node2_port1 = "0xFE800000000000000200000000020001";
constexpr const char* gid_of_node2_port2 = "0xFE800000000000000200000000020002";

constexpr const char* gid_of_node3 = "0xFE800000000000000200000000030001";

constexpr const char* three_hosts = R"(
[[host]]
name = "node1"
[[host]]
name = "node2"
[[host.hca]]
ports = 2
[[host]]
name = "node3"
)";

class running_service : public testing::Test
{
  protected:
    running_service()
    {
        write_file(folder / "world.toml", three_hosts);
        mkdir((folder / "mnt").c_str(), 0755);
        std::vector<std::string> options = {"--config", folder / "world.toml"};
        if (mounts_work()) options.insert(options.end(), {"--mount", folder / "mnt"});
        ats.emplace(options);
        EXPECT_TRUE(eventually([&] { return is_settled(); })) << ats->ask({"status"}).out;
    }

    // Returns true when every host has the answer to its registration, and the second port of node2 is up.
    bool is_settled()
    {
        const json status = ats->ask_json({"status"});
        for (const json& host : status["hosts"])
            if (host["ibat"]["cache"].empty()) return false;
        return status["hosts"][1]["hcas"][0]["ports"][1]["state"] == "UP";
    }

    json records() { return ats->ask_json({"sa", "show"})["records"]; }

    // The record with that host name, or an empty object if there is none.
    json record_of(const std::string& host_name)
    {
        for (const json& record : records())
            if (record["host_name"] == host_name) return record;
        return json::object();
    }

    // Gives an order that changes a host's record. Expects that the SA does not confirm it, for this reason.
    void expect_unconfirmed(const std::vector<std::string>& order, const std::string& reason)
    {
        const program_result result = ats->ask(order);
        EXPECT_EQ(result.exit_code, 1);
        EXPECT_THAT(result.err, StartsWith("ats: stored, not confirmed by the SA: "));
        EXPECT_THAT(result.err, HasSubstr(reason));
    }

    json host_status(const std::string& name) { return ats->ask_json({"status", "--host", name})["hosts"].at(0); }

    json active_port(const std::string& host)
    {
        const json hca = host_status(host)["hcas"][0];
        return hca["ports"][hca["active_port"].get<size_t>() - 1];
    }

    std::string file(const std::string& name) const { return folder / ("mnt/" + name); }

    void check_status();
    void check_lookups();
    void find_a_stale_cache();
    void disturb_the_sa();
    void fail_over();
    void change_identity();
    void follow_the_log();
    void use_the_files();
    void interrupt_a_write();

    scratch_folder folder;
    std::optional<service> ats;
};

void running_service::check_status()
{
    const json status = ats->ask_json({"status"});
    ASSERT_EQ(status["hosts"].size(), 3u);
    const json& node2 = status["hosts"][1];
    EXPECT_THAT(node2["version"].get<std::string>(), HasSubstr("ats " ATS_VERSION));
    EXPECT_EQ(node2["trace"], 1);
    EXPECT_EQ(status["fabric"], "embedded");
    json registration = node2["registrations"].at(0);
    EXPECT_LE(registration["confirmed_seconds"], status["uptime_seconds"]);
    registration.erase("confirmed_seconds");
    EXPECT_EQ(registration, json({{"hca", "mthca0"},
                                  {"registered", true},
                                  {"name", "node2"},
                                  {"address", "10.0.0.2"},
                                  {"gid", gid_of_node2_port1},
                                  {"gid6", "fe80::200:0:2:1"},
                                  {"p_key", "0xFFFF"},
                                  {"port", 1},
                                  {"sm_lid", 1},
                                  {"reason", nullptr},
                                  {"status", nullptr},
                                  {"unanswered_seconds", nullptr}}));
    EXPECT_EQ(node2["verification"], json({{"period", 60}, {"skew", 1}}));
    const json& hca = node2["hcas"].at(0);
    EXPECT_EQ(hca["active_port"], 1);
    EXPECT_EQ(hca["ports"][0]["state"], "Active");
    EXPECT_EQ(hca["ports"][1]["state"], "UP");
    EXPECT_EQ(hca["ports"][1]["link"], "up");
    EXPECT_EQ(hca["ports"][0]["gid"], gid_of_node2_port1);
    EXPECT_EQ(hca["ports"][0]["lid"], 3);
    EXPECT_EQ(hca["ports"][0]["address"], "10.0.0.2");
    EXPECT_EQ(node2["ibat"]["cache"].at(0)["kind"], "own");
    EXPECT_EQ(record_of("node2"), json({{"gid", gid_of_node2_port1},
                                        {"gid6", "fe80::200:0:2:1"},
                                        {"p_key", "0xFFFF"},
                                        {"address", "10.0.0.2"},
                                        {"host_name", "node2"},
                                        {"lease", "infinite"}}));
    std::istringstream window(cli::fit_status(status, 80, 24));
    size_t lines = 0;
    for (std::string line; std::getline(window, line); ++lines) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_LE(lines, 24u);
    EXPECT_THAT(window.str(), HasSubstr("\nnode3  mthca0  1"));
    EXPECT_THAT(cli::fit_status(status, 80, 5), testing::EndsWith("lines more: --host NAME shows one host"));
    const program_result picture = ats->ask({"status"});
    for (const char* part : {"An embedded fabric, up for", "node1: ats " ATS_VERSION,
                             "  registered: node2, 10.0.0.2, P_Key 0xFFFF, SM LID 1; confirmed",
                             "mthca0, active port 1", "PORT  LINK  STATE", gid_of_node2_port2})
        EXPECT_THAT(picture.out, HasSubstr(part));
}

void running_service::check_lookups()
{
    const program_result both = ats->ask({"resolve", "10.0.0.2", "10.0.0.77", "--json"});
    EXPECT_EQ(both.exit_code, 1);
    EXPECT_EQ(both.answer()[0]["gid"], gid_of_node2_port1);
    EXPECT_EQ(both.answer()[0]["source"], "SA");
    EXPECT_EQ(both.answer()[1]["status"], "not found");
    EXPECT_THAT(both.answer()[1]["reason"].get<std::string>(), HasSubstr("names no owner"));

    const program_result again = ats->ask({"resolve", "--verify", "10.0.0.2"});
    EXPECT_EQ(again.exit_code, 0);
    EXPECT_THAT(again.out, HasSubstr(gid_of_node2_port1));
    EXPECT_THAT(again.out, HasSubstr("from the cache"));
    EXPECT_THAT(again.out, HasSubstr("the SA agrees"));

    EXPECT_EQ(ats->ask_json({"resolve", "--fresh", "10.0.0.2"})[0]["source"], "SA");

    const program_result named = ats->ask({"resolve", "node2", "nobody", "--json"});
    EXPECT_EQ(named.exit_code, 1);
    EXPECT_EQ(named.answer()[0]["gid6"], "fe80::200:0:2:1");
    EXPECT_EQ(named.answer()[0]["address"], "10.0.0.2");
    EXPECT_EQ(named.answer()[1]["reason"], "the SA holds no record of that host name");
    EXPECT_THAT(ats->ask({"reverse", "fe80:0000::200:0:2:1"}).out, HasSubstr("  10.0.0.2  "));
    EXPECT_THAT(ats->ask({"resolve", "10.0.0.2", "--gid-format", "ipv6"}).out, HasSubstr("  fe80::200:0:2:1  "));

    EXPECT_EQ(ats->ask_json({"flush", "10.0.0.2"})["dropped"], 1);
    EXPECT_EQ(ats->ask({"resolve", "10.0.0.2", "--cached"}).exit_code, 1);
    EXPECT_THAT(ats->ask({"flush", gid_of_node2_port1}).err,
                HasSubstr("has no entry of " + std::string(gid_of_node2_port1)));
    EXPECT_EQ(ats->ask({"resolve", "10.0.0.2", "10.0.0.3"}).exit_code, 0);
    EXPECT_EQ(ats->ask_json({"flush", gid_of_node2_port1})["dropped"], 1);
    EXPECT_EQ(ats->ask({"flush", "10.0.0.1"}).exit_code, 1) << "the host's own mapping stays";
    EXPECT_EQ(ats->ask({"flush"}).exit_code, 0);
    EXPECT_EQ(host_status("node1")["ibat"]["cache"].size(), 1u);

    for (const char* destination : {"10.0.0.2", gid_of_node2_port1}) {
        const json path = ats->ask_json({"path", destination})[0];
        EXPECT_EQ(path["dlid"], active_port("node2")["lid"]);
        EXPECT_EQ(path["slid"], active_port("node1")["lid"]);
        EXPECT_EQ(path["mtu_bytes"], 2048);
        EXPECT_EQ(path["rate_gbps"], 10);
        EXPECT_EQ(path["source"], path.contains("address") ? "SA" : "cache");
    }
    EXPECT_EQ(ats->ask_json({"path", "10.0.0.2", "--fresh"})[0]["source"], "SA");
    EXPECT_THAT(ats->ask({"path", "10.0.0.2", "--cached", "--gid-format", "ipv6"}).out,
                HasSubstr("  fe80::200:0:2:1 LID "));
    const program_result nowhere = ats->ask({"path", "fe80::98"});
    EXPECT_EQ(nowhere.exit_code, 1);
    EXPECT_THAT(nowhere.out, HasSubstr("not found: the SA knows no path from this host to the GID"));

    const json elsewhere = ats->ask_json({"reverse", gid_of_node2_port1, "--host", "node3"});
    EXPECT_EQ(elsewhere[0]["address"], "10.0.0.2");
    EXPECT_EQ(elsewhere[0]["source"], "SA");
    const program_result unknown = ats->ask({"reverse", "fe80::98", "--cached"});
    EXPECT_EQ(unknown.exit_code, 1);
    EXPECT_THAT(unknown.out, HasSubstr("not cached: it is not in the cache"));
}

void running_service::find_a_stale_cache()
{
    for (const char* asker : {"node1", "node2"})
        EXPECT_EQ(ats->ask({"resolve", "10.0.0.3", "--host", asker}).exit_code, 0);
    EXPECT_EQ(ats->ask({"set-address", "10.0.0.33", "--host", "node3"}).exit_code, 0);
    EXPECT_EQ(record_of("node3").value("address", ""), "10.0.0.33") << "the order ended before the SA had the record";
    const program_result wrong = ats->ask({"resolve", "10.0.0.3", "--verify"});
    EXPECT_EQ(wrong.exit_code, 1);
    EXPECT_THAT(wrong.out, StartsWith("10.0.0.3  not found: the SA names no owner  (from the SA, "));
    EXPECT_THAT(wrong.out, HasSubstr("; the cache was WRONG: " + std::string(gid_of_node3) + "; it is corrected)"));
    EXPECT_NE(ats->ask_json({"resolve", "10.0.0.3", "--cached"})[0]["status"], "ok");
    const json reversal = ats->ask({"reverse", gid_of_node3, "--verify", "--host", "node2", "--json"}).answer()[0];
    EXPECT_EQ(reversal["found"], "10.0.0.33");
    EXPECT_EQ(reversal["cached"], "10.0.0.3");
    EXPECT_EQ(reversal["corrected"], true);
    EXPECT_EQ(ats->ask_json({"resolve", "10.0.0.33"})[0]["status"], "ok");
}

void running_service::disturb_the_sa()
{
    EXPECT_EQ(ats->ask({"sa", "silence", "on"}).exit_code, 0);
    EXPECT_THAT(ats->ask({"sa", "show"}).out, HasSubstr("It is silent"));
    EXPECT_THAT(ats->ask({"resolve", "node2"}).out, HasSubstr("node2  timed out"));
    const program_result silence = ats->ask({"resolve", "10.0.0.98", "--timeout", "1.4"});
    EXPECT_EQ(silence.exit_code, 1) << "the service is alive, so the client waits longer than --timeout";
    EXPECT_THAT(silence.out, HasSubstr("timed out: the SA did not answer in time"));
    EXPECT_EQ(ats->ask({"set-address", "10.0.0.1", "--no-wait"}).exit_code, 0);
    expect_unconfirmed({"set-address", "10.0.0.1"}, "the SA did not answer");
    EXPECT_EQ(host_status("node1")["registrations"][0]["reason"], "the SA did not answer");
    EXPECT_EQ(ats->ask({"sa", "silence", "off"}).exit_code, 0);

    EXPECT_EQ(ats->ask_json({"sa", "status", "0x0400"})["done"], "The SA answers everything with status 0x0400.");
    EXPECT_EQ(ats->ask_json({"reverse", "0x98"})[0]["reason"], "the SA refused the question");
    expect_unconfirmed({"set-name", "node1"}, "refused it with status 0x0400 (it holds several such records)");
    EXPECT_THAT(ats->ask({"status"}).out, HasSubstr("\n  NOT registered: the SA refused it with status 0x0400"));
    EXPECT_EQ(host_status("node1")["registrations"][0]["status"], "0x0400");
    EXPECT_EQ(ats->ask({"sa", "status", "0"}).exit_code, 0);

    EXPECT_THAT(ats->ask({"sa", "forget", gid_of_node2_port1}).out, HasSubstr("1 record."));
    EXPECT_TRUE(record_of("node2").empty());
    EXPECT_THAT(ats->ask({"sa", "forget"}).out, HasSubstr("2 records."));
    EXPECT_EQ(ats->ask({"sa", "forget"}).exit_code, 1);
    const program_result no_records = ats->ask({"sa", "show"});
    EXPECT_EQ(no_records.exit_code, 1);
    EXPECT_EQ(no_records.out, "The SA holds no ServiceRecord.\n");
}

void running_service::fail_over()
{
    EXPECT_EQ(ats->ask({"link", "down", "--host", "node2"}).exit_code, 0);
    EXPECT_TRUE(eventually([&] { return record_of("node2").value("gid", "") == gid_of_node2_port2; }));
    const json hca = host_status("node2")["hcas"].at(0);
    EXPECT_EQ(hca["active_port"], 2);
    EXPECT_EQ(hca["ports"][0]["link"], "down");
    EXPECT_EQ(ats->ask({"link", "down", "--host", "node2", "--hca", "mthca0", "--port", "2"}).exit_code, 0);
    EXPECT_TRUE(eventually([&] { return host_status("node2")["hcas"].at(0)["active_port"].is_null(); }));
    EXPECT_THAT(ats->ask({"status", "--host", "node2"}).out, HasSubstr("no active port"));
    for (const auto& [command, subject] : {std::pair{"reverse", "0x98"}, {"resolve", "10.0.0.98"}}) {
        const program_result cut_off = ats->ask({command, subject, "--host", "node2"});
        EXPECT_EQ(cut_off.exit_code, 1);
        EXPECT_THAT(cut_off.out, HasSubstr("failed: the request could not be sent")) << command;
    }
    expect_unconfirmed({"set-name", "node2", "--host", "node2"}, "no port is active");
    EXPECT_THAT(ats->ask({"status", "--host", "node2"}).out, HasSubstr("NOT registered: no port is active"));
    EXPECT_EQ(ats->ask({"link", "up", "--host", "node2"}).exit_code, 0);
    EXPECT_TRUE(eventually([&] { return record_of("node2").value("gid", "") == gid_of_node2_port1; }));
}

void running_service::change_identity()
{
    EXPECT_EQ(ats->ask({"set-name", "größenänderung"}).exit_code, 0);
    EXPECT_FALSE(record_of("größenänderung").empty());
    EXPECT_EQ(host_status("größenänderung")["name"], "node1")
        << "--host also takes the name that the host has registered";
    EXPECT_THAT(ats->ask({"sa", "show"}).out, HasSubstr("10.0.0.1  größenänderung  infinite\n"));
    EXPECT_THAT(ats->ask({"set-address", "10.0.0.2"}).out, HasSubstr("'node1' has the same address as 'node2'"));
    EXPECT_EQ(ats->ask({"set-address", "10.0.0.1"}).exit_code, 0);
    EXPECT_EQ(ats->ask({"set-name", "node2"}).exit_code, 0);
    const json namesakes = ats->ask_json({"resolve", "node2"});
    ASSERT_EQ(namesakes.size(), 2u) << namesakes;
    EXPECT_EQ(namesakes[0]["address"], "10.0.0.1");
    EXPECT_EQ(namesakes[1]["address"], "10.0.0.2");
    EXPECT_EQ(ats->ask({"control", "set_host_name node1"}).out, "");
    EXPECT_TRUE(eventually([&] { return !record_of("node1").empty(); }));
    EXPECT_EQ(ats->ask({"control", "sa_verify_period -5 7"}).exit_code, 0);
    EXPECT_THAT(ats->ask({"status"}).out, HasSubstr("registration is not checked"));
    EXPECT_EQ(ats->ask({"control", "sa_verify_period", "300", "7"}).exit_code, 0);
    EXPECT_EQ(host_status("node1")["verification"], json({{"period", 300}, {"skew", 7}}));
    const std::string refusal =
        raw_connection(ats->socket()).ask(R"({"request":"control","command":"set_ip_addrs 1"})");
    EXPECT_TRUE(json::parse(refusal).value("failed", false)) << refusal;
    EXPECT_THAT(refusal, HasSubstr("ats_sa_update_ip_addrs FAIL"));
    EXPECT_EQ(ats->ask({"control", "sa_verify_period", "x", "5"}).exit_code, 1)
        << "the module complains with a plain line";
    const std::string command_list = ats->ask({"control", "--list"}).out;
    const std::string help = raw_connection(ats->socket()).ask(R"({"request":"control","command":"help"})");
    std::istringstream usage(json::parse(help).at("output").get<std::string>());
    int commands = 0;
    for (std::string line; std::getline(usage, line);) {
        const size_t dash = line.find(" - ");
        if (dash == line.npos) continue;
        ++commands;
        EXPECT_THAT(command_list, HasSubstr("\n" + line.substr(0, line.find(' ')) + "  "));
    }
    EXPECT_EQ(commands, 7) << usage.str();
    EXPECT_EQ(std::count(command_list.begin(), command_list.end(), '\n'), 8);
}

void running_service::follow_the_log()
{
    EXPECT_EQ(ats->ask({"trace", "4", "--host", "node1"}).exit_code, 0);
    EXPECT_EQ(host_status("node1")["trace"], 4);
    EXPECT_EQ(host_status("node3")["trace"], 1);
    ats_process follower({"log", "-f", "--socket", ats->socket()}, folder / "followed", folder / "complaints");
    const auto log_shows = [&](const std::string& text) {
        return eventually([&] { return text_of_file(folder / "followed").find(text) != std::string::npos; });
    };
    EXPECT_TRUE(log_shows("LOGGER: Added key"));
    EXPECT_EQ(ats->ask({"control", "rarp", "fe80::200:0:2:1"}).exit_code, 0);
    EXPECT_TRUE(log_shows(":Status OK received."));
    EXPECT_EQ(follower.stop(SIGINT), -SIGINT);
    EXPECT_THAT(ats->ask({"log"}).out, HasSubstr("DEBUG  "));
    EXPECT_THAT(ats->ask({"log", "--level", "1"}).out, Not(HasSubstr("DEBUG  ")));
    EXPECT_THAT(ats->ask({"log"}).out, Not(HasSubstr("ATS Ports Info")))
        << "`ats status` must not leave lines in the log";
    EXPECT_THAT(ats->ask({"log", "--json"}).out, HasSubstr(R"("tick":)"));
    EXPECT_EQ(ats->ask({"trace", "1"}).exit_code, 0);
}

void running_service::use_the_files()
{
    EXPECT_THAT(text_of_file(file("node1/proc/dorvex/ats/version")), HasSubstr("ats " ATS_VERSION));
    EXPECT_EQ(text_of_file(file("node1/proc/dorvex/ats/control")), "");
    EXPECT_THAT(text_of_file(file("node1/log")), HasSubstr("SA verification period:300   verification skew(%): 7"));
    write_file(file("node3/proc/dorvex/ats/control"), "set_host_name filed\n");
    EXPECT_TRUE(eventually([&] { return !record_of("filed").empty(); }));
    write_file(file("node3/proc/dorvex/ats/control"), "set_host_name f\x1b[2J\xff\n");
    EXPECT_TRUE(eventually([&] { return !record_of("f\x1b[2J\uFFFD").empty(); }));
    EXPECT_THAT(ats->ask({"sa", "show"}).out, HasSubstr("  f\\x1b[2J"));
    EXPECT_FALSE(std::filesystem::exists(file("node1/proc/dorvex/ats/parameters")));
    EXPECT_EQ(open(file("node1/log").c_str(), O_WRONLY), -1);
    EXPECT_EQ(open(file("node1/proc/dorvex/ats/version").c_str(), O_WRONLY), -1);

    std::ifstream log(file("node3/log"));
    std::stringstream old_lines;
    old_lines << log.rdbuf();
    write_file(file("node3/proc/dorvex/ats/control"), "wh\x1b[mat\n");
    log.clear();
    std::string line;
    EXPECT_TRUE(std::getline(log, line));
    EXPECT_THAT(line, HasSubstr("kqt /proc: unknown command: 'wh\x1b[mat'"));
    EXPECT_THAT(ats->ask({"log", "--host", "node3"}).out, HasSubstr("'wh\\x1b[mat'"));
}

// A process writes to the control file, and the module waits for a silent SA. A signal to the process ends the module's
// wait, and the module logs this. Repeats the write until the signal comes during such a wait.
void running_service::interrupt_a_write()
{
    EXPECT_EQ(ats->ask({"sa", "silence", "on"}).exit_code, 0);
    const auto is_interrupted = [&] {
        return text_of_file(file("node3/log")).find("Interrupted by a signal") != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] {
        const pid_t writer = fork();
        if (writer == 0) {
            signal(SIGALRM, [](int) {});
            const int control = open(file("node3/proc/dorvex/ats/control").c_str(), O_WRONLY);
            ualarm(10'000, 0);
            _exit(write(control, "set_host_name node3", 19) == 19 ? 0 : 1);
        }
        int status = 0;
        waitpid(writer, &status, 0);
        EXPECT_EQ(status, 0);
        return is_interrupted();
    }));
    EXPECT_EQ(ats->ask({"sa", "silence", "off"}).exit_code, 0);
}

TEST_F(running_service, serves_every_client_and_file_until_it_is_stopped)
{
    check_status();
    check_lookups();
    find_a_stale_cache();
    disturb_the_sa();
    fail_over();
    change_identity();
    follow_the_log();
    if (mounts_work()) {
        use_the_files();
        interrupt_a_write();
    }
    const std::string socket = ats->socket();
    ats_process watcher({"status", "--watch", "--socket", socket}, folder / "watched", folder / "complaints");
    EXPECT_TRUE(eventually([&] {
        const std::string picture = text_of_file(folder / "watched");
        return picture.find("node1:") != picture.rfind("node1:"); // "node1:" was drawn twice
    }));
    ats_process log_follower({"log", "-f", "--socket", socket}, folder / "log", folder / "complaints2");
    EXPECT_TRUE(eventually([&] { return !text_of_file(folder / "log").empty(); }));
    std::ifstream still_open(file("node1/log")); // must not prevent the unmounting
    EXPECT_EQ(ats->stop(SIGINT), 0);
    EXPECT_EQ(watcher.wait(), 3);
    EXPECT_THAT(text_of_file(folder / "complaints"), HasSubstr("no service on"));
    EXPECT_EQ(log_follower.wait(), 3);
    EXPECT_THAT(ats->output(), HasSubstr("all hosts have unloaded"));
    EXPECT_THAT(ats->complaints(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(socket));
    EXPECT_FALSE(std::filesystem::exists(file("node1")));
    if (!mounts_work()) GTEST_SKIP() << "no FUSE here: the mounted files were not tried";
}

TEST(run, obeys_a_signal_while_hosts_are_starting)
{
    const scratch_folder folder;
    ats_process process({"run", "--hosts", "1000", "--socket", folder / "socket"}, folder / "out", folder / "err");
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder / "socket"); }));
    EXPECT_EQ(process.stop(), 0);
    EXPECT_EQ(text_of_file(folder / "err"), "ats: stopped by a signal while hosts were starting\n");
    EXPECT_EQ(text_of_file(folder / "out"), "ats: all hosts have unloaded.\n");
}

} // namespace
