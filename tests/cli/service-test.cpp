// `ats run` under a service manager (systemd): its notices to the manager, reloads of its configuration, the watchdog,
// and `ats check`.
#include <latch>
#include <map>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "cli/acm/route-finder.h"
#include "cli/server/watchdog.h"
#include "cli/socket/service-origin.h"
#include "cli/socket/socket.h"
#include "client/socket-path.h"
#include "host/stack/timers.h"
#include "tests/cli/program.h"
#include "tests/fabric/requests.h"
#include "tools/clients/raw-connection.h"

namespace
{

// The socket of a service manager. Programs that start while this object exists find the path of the socket in
// NOTIFY_SOCKET.
class notice_socket
{
  public:
    explicit notice_socket(const std::string& path) : socket_(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~notice_socket()
    {
        unsetenv("NOTIFY_SOCKET");
        close(socket_);
    }

    // Returns the next notice, or "" if there is none yet.
    std::string next()
    {
        char text[128];
        const ssize_t length = recv(socket_, text, sizeof text, MSG_DONTWAIT);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }

  private:
    const int socket_;
};

TEST(service, tells_its_manager_when_it_is_ready_and_when_it_stops)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    service ats;
    std::string notice;
    EXPECT_TRUE(eventually([&] { return !(notice = notices.next()).empty(); }));
    EXPECT_EQ(notice, "READY=1");
    EXPECT_EQ(ats.ask({"status"}).exit_code, 0) << "READY=1 came too early";
    EXPECT_EQ(notices.next(), "");
    kill(ats.pid(), SIGHUP);
    EXPECT_EQ(ats.stop(), 0) << "two signals at once ended it before its hosts had unloaded";
    EXPECT_EQ(notices.next(), "STOPPING=1");

    // A service is started with stdout and stderr closed. No file that the service opens may get the descriptor 1 or 2:
    // the lines for the user would go into that file.
    const std::string config = folder / "world.toml", socket = folder / "socket";
    write_file(config, "[[host]]\n");
    fabric_tools::process mute_service(
        {.arguments = {"sh", "-c",
                       "exec " ATS_PROGRAM " run --config '" + config + "' --socket '" + socket + "' >&- 2>&-"},
         .output = folder / "out"});
    EXPECT_TRUE(eventually([&] { return notices.next() == "READY=1"; }));
    mute_service.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return notices.next() == "READY=1"; }));
    EXPECT_EQ(text_of_file(socket + ".lock").find("ats:"), std::string::npos) << "a line is in the lock file";
    EXPECT_EQ(mute_service.stop(std::chrono::minutes(1)), 0);
}

// Sends the service the signal to reload. Waits until it is ready again, and returns the lines that it has printed.
std::string reload(const service& ats, notice_socket& notices)
{
    const size_t before = ats.complaints().size();
    kill(ats.pid(), SIGHUP);
    std::string all;
    const auto is_ready = [&] { return (all += notices.next()).ends_with("READY=1"); };
    EXPECT_TRUE(eventually(is_ready)) << all;
    EXPECT_THAT(all, testing::MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+READY=1"));
    return ats.complaints().substr(before);
}

TEST(service, takes_back_an_address_that_was_reloaded_while_the_sa_was_silent)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    const std::string config = folder / "world.toml";
    write_file(config, "[[host]]\naddress = \"10.0.0.1\"\n");
    service ats({"--config", config});
    EXPECT_TRUE(eventually([&] { return notices.next() == "READY=1"; }));
    EXPECT_EQ(ats.ask({"sa", "silence", "on"}).exit_code, 0);
    write_file(config, "[[host]]\naddress = \"10.0.0.11\"\n");
    EXPECT_THAT(reload(ats, notices), testing::HasSubstr("10.0.0.11, which failed: stored, not confirmed by the SA"));
    EXPECT_EQ(ats.ask({"sa", "silence", "off"}).exit_code, 0);
    write_file(config, "[[host]]\naddress = \"10.0.0.1\"\n");
    EXPECT_EQ(reload(ats, notices), "ats: reloaded: node1 now has the address 10.0.0.1\n");
    EXPECT_EQ(reload(ats, notices), "ats: reloaded: nothing has changed\n");
    EXPECT_EQ(ats.ask_json({"sa", "show"})["records"][0]["address"], "10.0.0.1");
}

TEST(service, reload_applies_some_changes_names_those_that_need_a_restart_and_ignores_a_wrong_file)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    const std::string config = folder / "world.toml";
    const std::string two_hcas = "[[host.hca]]\n[[host.hca]]\n";
    const std::string old_text = "[[host]]\nverify_seconds = 300\nverify_skew_percent = 50\n[[host]]\n" + two_hcas;
    write_file(config, old_text);
    service ats({"--config", config});
    const auto warning_about = [](const std::string& address) {
        return "ats: node2: warning: 2 HCAs (mthca0, mthca1) register the same address, " + address +
               ": the SA names no owner of it while more than one is registered; choose one with --hca, or with a "
               "[[host.hca]] table\n";
    };
    EXPECT_TRUE(eventually([&] { return ats.complaints() == warning_about("10.0.0.2"); })) << ats.complaints();
    EXPECT_TRUE(eventually([&] { return notices.next() == "READY=1"; }));
    const auto host = [&](int number) { return ats.ask_json({"status"})["hosts"].at(number); };
    EXPECT_EQ(host(0)["verification"], json({{"period", 300}, {"skew", 50}}));
    for (const int number : {0, 1})
        EXPECT_TRUE(eventually([&] { return host(number)["registrations"][0]["registered"] == true; }));
    EXPECT_EQ(reload(ats, notices), "ats: reloaded: nothing has changed\n");

    const std::string fixed_parts =
        "[acm]\ntimeout_ms = 30\n[metrics]\ntextfile = \"/x\"\n[[host]]\nname = \"new\"\nlog_kib = 64\n[host.ibat]\n"
        "ibat_capacity = 9\n";
    write_file(config, "[access]\nquestions = \"everyone\"\n" + fixed_parts +
                           "[[host]]\naddress = \"10.0.0.77\"\ntrace = 3\nverify_seconds = 0\n"
                           "spread_seconds = 1\n" +
                           two_hcas);
    const auto is_open = [&] {
        return (std::filesystem::status(ats.socket()).permissions() & std::filesystem::perms::others_write) !=
               std::filesystem::perms::none;
    };
    EXPECT_FALSE(is_open());
    EXPECT_EQ(reload(ats, notices),
              "ats: not reloaded: [acm] has changed in the configuration, which needs a restart\n"
              "ats: not reloaded: [metrics] has changed in the configuration, which needs a restart\n"
              "ats: reloaded: [access] has changed\n"
              "ats: not reloaded: log_kib of node1 has changed in the configuration, which needs a restart\n"
              "ats: not reloaded: a module parameter of node1 has changed in the configuration, which needs a restart\n"
              "ats: reloaded: node1 now checks its registration every 60 seconds, by up to 1% more\n"
              "ats: reloaded: node1 now is called new\n"
              "ats: reloaded: node2 now traces at level 3\n"
              "ats: reloaded: node2 now does not check its registration any more\n"
              "ats: reloaded: node2 now spreads its registrations over 1 s\n"
              "ats: reloaded: node2 now has the address 10.0.0.77\n" +
                  warning_about("10.0.0.77"));
    EXPECT_TRUE(is_open());
    EXPECT_EQ(host(0)["registrations"][0]["name"], "new");
    EXPECT_EQ(host(1)["registrations"][0]["address"], "10.0.0.77");
    EXPECT_EQ(host(1)["trace"], 3);
    EXPECT_EQ(host(1)["verification"]["period"], 0);

    // The file of the socket is missing, so one change of this reload fails. The next reload must undo
    // the other changes.
    const std::string changed_text = text_of_file(config);
    const auto answer_to_long_line = [&] { return raw_connection(ats.socket()).ask(std::string(2000, ' ')); };
    std::filesystem::rename(ats.socket(), folder / "away");
    write_file(config, "[limits]\nline_bytes = 1024\n" + changed_text.substr(changed_text.find("[acm]")));
    EXPECT_THAT(reload(ats, notices),
                testing::AllOf(testing::HasSubstr("[access] has changed, which failed: cannot close"),
                               testing::HasSubstr("[limits] have changed\n")));
    std::filesystem::rename(folder / "away", ats.socket());
    EXPECT_THAT(answer_to_long_line(), testing::HasSubstr("at most 1024 bytes"));
    write_file(config, changed_text);
    EXPECT_THAT(reload(ats, notices), testing::HasSubstr("[limits] have changed\n"));
    EXPECT_THAT(answer_to_long_line(), testing::Not(testing::HasSubstr("at most")));

    const json before = ats.ask_json({"sa", "show"});
    const auto expect_refusal = [&](const std::string& reason) {
        const std::string lines = reload(ats, notices);
        EXPECT_THAT(lines, testing::StartsWith("ats: not reloaded, everything stays as it was: " + config));
        EXPECT_THAT(lines, testing::HasSubstr(reason));
    };
    std::filesystem::remove(config);
    expect_refusal("cannot be read: No such file");
    std::filesystem::create_directory(config);
    expect_refusal("is not a file");
    std::filesystem::remove(config);
    write_file(config, old_text + "[[host]]\nname = 3\n");
    expect_refusal(":8: 'name' must be a text");
    EXPECT_EQ(ats.ask_json({"sa", "show"}), before);

    write_file(config, old_text);
    for (int i = 0; i < 1000; ++i) kill(ats.pid(), SIGHUP);
    EXPECT_TRUE(eventually([&] { return host(0)["registrations"][0]["name"] == "node1"; }));
    for (int i = 0; i < 100; ++i) kill(ats.pid(), SIGHUP);
    kill(ats.pid(), SIGTERM);
    for (int i = 0; i < 100; ++i) kill(ats.pid(), SIGHUP);
    EXPECT_EQ(ats.stop(0), 0) << ats.complaints();
    EXPECT_THAT(ats.output(), testing::HasSubstr("all hosts have unloaded"));
}

TEST(service, address_from_the_command_line_stays_after_a_reload)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    write_file(folder / "world.toml", "[[host]]\n");
    const service ats({"--config", folder / "world.toml", "--address", "10.0.0.7", "--name", "seven"});
    EXPECT_TRUE(eventually([&] { return notices.next() == "READY=1"; }));
    write_file(folder / "world.toml", "[[host]]\naddress = \"10.0.0.8\"\nname = \"eight\"\ntrace = 3\n");
    EXPECT_EQ(reload(ats, notices), "ats: reloaded: seven now traces at level 3\n");
}

// The SA does not answer, so the hosts need a moment to unload. Signals to reload arrive meanwhile.
TEST(service, reload_while_hosts_unload_does_not_end_it_before_they_have_unloaded)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    write_file(folder / "world.toml", "[[host]]\n[[host]]\n");
    service ats({"--config", folder / "world.toml"});
    EXPECT_EQ(ats.ask({"sa", "silence", "on"}).exit_code, 0);
    kill(ats.pid(), SIGTERM);
    EXPECT_TRUE(eventually([&] { return notices.next() == "STOPPING=1"; }));
    const auto has_ended = [&] {
        kill(ats.pid(), SIGHUP);
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(ats.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
    };
    EXPECT_TRUE(eventually(has_ended));
    EXPECT_EQ(ats.stop(0), 0) << ats.complaints();
    EXPECT_THAT(ats.output(), testing::HasSubstr("all hosts have unloaded"));
}

// Calls `action` in the fabric's task when a port changes.
struct link_listener final : fabric::listener {
    explicit link_listener(std::function<void()> action) : action(std::move(action)) {}
    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes&) override {}
    void port_changed(int, fabric::port_change, uint16_t) override { action(); }

    const std::function<void()> action;
};

TEST(service, tells_its_manager_that_it_works_as_long_as_its_loop_and_its_hosts_do)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    setenv("WATCHDOG_USEC", "40000", 1);
    const service ats;
    unsetenv("WATCHDOG_USEC");
    EXPECT_TRUE(eventually([&] { return notices.next() == "WATCHDOG=1"; }));

    const auto hosts =
        cli::running_hosts::build(cli::numbered_hosts(2), "", [](const std::string&, const std::string&) {}).value();
    cli::event_loop loop;
    loop.start();
    cli::workers workers(1);
    cli::host_lookups lookups;
    cli::life_signs signs(loop, workers, lookups, *hosts);
    signs.ask();
    EXPECT_TRUE(eventually([&] { return signs.missing().empty(); }));
    std::latch hang_begins(5), hang_end(1);
    const auto hang = [&] { // runs in five threads, one for each part that hangs below
        hang_begins.count_down();
        hang_end.wait();
    };
    loop.post(hang);
    workers.push({}, hang);
    kernel::machine& first = hosts->all()[0]->machine();
    lookups.at(first, hosts->statistics_of(first).lookups).ask({}, {uint32_t{1}}, [&](const auto&) { hang(); });
    link_listener listener(hang);
    fabric::hca* const adapter = hosts->subnet().value()->add_hca("other", "hca", 1).value();
    adapter->listen(&listener);
    EXPECT_TRUE(hosts->subnet().value()->link_up("other", "hca", 1));
    const std::function<void()> handler = hang;
    timing_t timer{};
    timer.function = [](unsigned long handler) { (*reinterpret_cast<const std::function<void()>*>(handler))(); };
    timer.data = reinterpret_cast<unsigned long>(&handler);
    hosts->all()[1]->machine().get<stack::timers>().arm(timer);
    hang_begins.wait();
    signs.ask();
    const std::vector<std::string> expected = {"the event loop", "the fabric's task", "sleeping timers of node2"};
    EXPECT_TRUE(eventually([&] { return signs.missing() == expected; })) << testing::PrintToString(signs.missing());
    const auto much_later = std::chrono::steady_clock::now() + cli::life_signs::longest_request;
    EXPECT_THAT(signs.missing(much_later), testing::IsSupersetOf({"a worker", "lookups of node1"}));
    hang_end.count_down();
    EXPECT_TRUE(eventually([&] { return signs.missing().empty(); }));
    EXPECT_TRUE(eventually([&] { return signs.missing(much_later).empty(); }));
    adapter->listen(nullptr);
    loop.stop();
}

// Stops the subnet when a datagram leaves a port.
struct blocking_tap final : fabric::tap {
    void crossed(uint64_t, uint16_t, const fabric::address&, const fabric::mad_bytes&) override
    {
        start.count_down();
        end.wait();
    }

    std::latch start{1}, end{1};
};

// A worker waits for the SA when the service stops. The program that has asked is not served any more.
TEST(service, host_name_that_is_found_after_the_door_has_closed_is_ignored)
{
    const scratch_folder folder;
    const auto hosts =
        cli::running_hosts::build(cli::numbered_hosts(1), "", [](const std::string&, const std::string&) {}).value();
    embedded::subnet& subnet = *hosts->subnet().value();
    fabric::hca* const adapter = subnet.add_hca("other", "hca", 1).value();
    EXPECT_TRUE(subnet.link_up("other", "hca", 1));
    subnet.restore_records({test::host_record(test::gid_number(2), 2)});
    auto server = cli::server::start(*hosts, cli::listening_socket::open(folder / "socket", false).value(), {}).value();
    std::optional<acm::route_finder> routes(std::in_place, *server, *hosts);
    blocking_tap tap;
    subnet.set_tap(&tap);
    std::thread sender([&] { adapter->send(1, {.lid = 1}, {}); });
    tap.start.wait();

    acm::resolve_request request;
    request.destination = "node2";
    request.is_cache_only = true;
    std::atomic<bool> is_answered = false;
    server->loop().post([&] { routes->find(request, {}, [&](const auto&) { is_answered = true; }); });
    EXPECT_TRUE(eventually([&] { return server->background().oldest_start().has_value(); }));
    routes.reset();
    tap.end.count_down();
    sender.join();
    EXPECT_TRUE(eventually([&] { return !server->background().oldest_start().has_value(); }));
    server.reset();
    EXPECT_FALSE(is_answered);
    subnet.set_tap(nullptr);
}

TEST(check, names_what_would_stop_a_service_and_starts_nothing)
{
    const scratch_folder folder;
    const std::string config = folder / "world.toml";
    const auto verdicts = [&](const std::string& socket) {
        const program_result result = run_ats({"check", "--config", config, "--socket", socket, "--json"});
        const json answer = result.answer();
        std::map<std::string, std::string> found;
        for (const json& check : answer["checks"])
            found[check["what"]] = check["verdict"].get<std::string>() + ": " + check["text"].get<std::string>();
        EXPECT_EQ(result.exit_code, answer["fit"] == true ? 0 : 1);
        return found;
    };
    using testing::HasSubstr;
    const std::string acm = "[acm]\nserve = \"on\"\nsocket = \"" + config + "\"\n";
    write_file(config, acm + "[[host]]\n[[host]]\n[[host.hca]]\n[[host.hca]]\n");
    auto found = verdicts(folder / "missing/socket");
    EXPECT_EQ(found["configuration"], "ok: " + config + ": 2 hosts on an embedded fabric");
    EXPECT_THAT(found["client socket"], HasSubstr("MISSING: " + (folder / "missing") + ": No such file"));
    EXPECT_THAT(found["acm socket"], HasSubstr("MISSING: " + config + " is not a socket: remove it"));
    EXPECT_THAT(found["open files"], testing::StartsWith("ok: "));
    EXPECT_THAT(found["HCAs"], testing::StartsWith("note: node2: 2 HCAs (mthca0, mthca1) register the same address"));
    EXPECT_FALSE(found.contains("SA")) << "an embedded fabric needs no port";
    found = verdicts(folder / "socket");
    EXPECT_EQ(found["client socket"], "ok: " + (folder / "socket") + " can be made");
    EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
    const auto metrics_finding = [&](const std::string& textfile) {
        write_file(config, "[metrics]\ntextfile = \"" + textfile + "\"\n[[host]]\n");
        return verdicts(folder / "socket")["metrics folder"];
    };
    EXPECT_THAT(metrics_finding(folder / "."), HasSubstr("ok: " + (folder / ".")));
    EXPECT_THAT(metrics_finding(folder / "missing"), HasSubstr("note: " + (folder / "missing") + ": No such file"));
    EXPECT_THAT(metrics_finding(config), HasSubstr("note: " + config + " is no folder"));
    write_file(config, "[[host]]\ntrace = 6\n");
    EXPECT_THAT(verdicts(folder / "socket")["configuration"], HasSubstr("MISSING: " + config + ":2: 'trace' must"));
}

TEST(service, advice_fits_how_it_was_started)
{
    const scratch_folder folder;
    const std::string path = folder / "socket";
    for (const bool by_systemd : {true, false}) {
        setenv("SYSTEMD_EXEC_PID", by_systemd ? std::to_string(getpid()).c_str() : "1", 1);
        const auto listener = cli::listening_socket::open(path, false).value();
        EXPECT_EQ(cli::where_to_look(path).starts_with("'journalctl -u "), by_systemd);
        EXPECT_EQ(cli::how_to_wake(path).starts_with("'systemctl status "), by_systemd);
        EXPECT_EQ(cli::how_to_start(path).starts_with("'systemctl status "), by_systemd);
    }
    unsetenv("SYSTEMD_EXEC_PID");

    setenv("ATS_SOCKET", "", 1);
    EXPECT_THAT(client::own_socket_path(), testing::EndsWith(".sock"));
    unsetenv("ATS_SOCKET");
}

} // namespace
