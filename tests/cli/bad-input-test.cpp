// Wrong arguments, wrong requests, exceeded limits and other bad input. A refusal must be clear and short, and a
// refused command must return the right exit code. Refused input must change nothing.
#include <algorithm>
#include <atomic>
#include <grp.h>
#include <list>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

#include "cli/socket/socket.h"
#include "host/exec/sanitizers.h"
#include "tests/cli/mounting.h"
#include "tests/cli/program.h"
#include "tests/client/fake-service.h"
#include "tools/clients/raw-connection.h"

namespace
{

using testing::HasSubstr;
using testing::StartsWith;

struct bad_input {
    std::vector<std::string> arguments;
    int exit_code;
    const char* complaint; // a part of the line on stderr
};

// Expects one line ("ats: ..."). A second line may follow, for example "Try 'ats link --help'".
void expect_refused(const program_result& result, const bad_input& expectation)
{
    SCOPED_TRACE(testing::PrintToString(expectation.arguments));
    EXPECT_EQ(result.exit_code, expectation.exit_code);
    EXPECT_THAT(result.err, StartsWith("ats: "));
    EXPECT_THAT(result.err, HasSubstr(expectation.complaint));
    EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 2);
    EXPECT_LT(result.err.size(), 400u) << "the line is too long to be read";
    EXPECT_EQ(result.out, "");
}

TEST(bad_input, clients_refuse_wrong_arguments_and_the_service_continues)
{
    const std::string overlong(5000, 'a');
    const service ats({"--hosts", "2"});
    const bad_input cases[] = {
        {{"resolve", "10.0.0"}, 2, "'10.0.0' is not an IPv4 address: write four numbers"},
        {{"resolve", ""}, 2, "'' is not an IPv4 address"},
        {{"flush", "10.0.0"}, 2, "'10.0.0' is not an IPv4 address"},
        {{"resolve", overlong}, 2, "aaa...' is not an IPv4 address"},
        {{"resolve", "--cached", "node1"}, 2, "no cache knows host names"},
        {{"resolve"}, 2, "ADDRESS is missing"},
        {{"resolve", "--verify", "--cached", "10.0.0.1"}, 2, "cannot go together with"},
        {{"resolve", "10.0.0.1", "--host", "node9"}, 2, "no host 'node9'; there are node1, node2"},
        {{"reverse", "node1"}, 2, "is not a GID: write 0x and up to 32 hexadecimal digits"},
        {{"reverse", "0x"}, 2, "is not a GID"},
        {{"path", "zz"}, 2, "'zz' is neither an IPv4 address nor a GID"},
        {{"reverse", "0x" + std::string(33, '1')}, 2, "is not a GID"},
        {{"reverse", "0x12g4"}, 2, "is not a GID"},
        {{"set-name", "two words"}, 2, "cannot be a host name: take 1 to 30 bytes of UTF-8 without blanks"},
        {{"set-name", ""}, 2, "cannot be a host name"},
        {{"set-name", ".."}, 2, "cannot be a host name"},
        {{"set-name", "a\u009b1mb"}, 2, "'a\\xc2\\x9b1mb' cannot be a host name"},
        {{"set-name", std::string(31, 'n')}, 2, "cannot be a host name"},
        {{"set-name", "\xff\xfe"}, 2, "bytes that are not text (UTF-8)"},
        {{"set-address", "0.0.0.0"}, 2, "cannot be a host's address: it means 'this network'"},
        {{"set-address", "239.255.255.255"}, 2, "it is a multicast address"},
        {{"set-address", "255.255.255.255"}, 2, "it is the broadcast address"},
        {{"trace", "6"}, 2, "LEVEL: '6' is not possible: write a number from 0 to 5"},
        {{"log", "--level", "-1"}, 2, "write a number from 0 to 5"},
        {{"log", "--host", "node9"}, 2, "no host 'node9'"},
        {{"status", "--host", "node9"}, 2, "no host 'node9'"},
        {{"link", "up", "--port", "9"}, 2, "9"},
        {{"link", "up", "--hca", "mlx5"}, 2, "mlx5"},
        {{"link"}, 2, "Try 'ats link --help'"},
        {{"sa", "remove", "fe80::5"}, 2, "embedded fabric: use 'ats sa forget fe80::5'"},
        {{"sa", "show", "--name", std::string(31, 'n')}, 2, "a host name has at most 30 bytes"},
        {{"sa", "forget", "node1"}, 2, "is not a GID: write 0x and up to 32"},
        {{"sa", "silence", "maybe"}, 2, "STATE: 'maybe' is not possible: write on or off"},
        {{"sa", "status", "0x10000"}, 2, "is not a status word"},
        {{"sa", "status", "busy"}, 2, "'busy' is not a status word: write a number up to 65535"},
        {{"control"}, 2, "COMMAND is empty"},
        {{"control", "set_hostname x"}, 2, "no control command 'set_hostname'; did you mean 'set_host_name'?"},
        {{"control", "rarp"}, 2, "write rarp GID, not 0 arguments"},
        {{"control", "show_local", "x"}, 2, "write show_local alone, not 1 argument"},
        {{"control", "set_host_name", std::string(41, 'n')}, 2, "a word has at most 40 bytes"},
        {{"control", "set_host_name", "a/b"}, 2, "'a/b' cannot be a host name"},
        {{"control", "set_ip_addrs 256.1.1.1"}, 2, "'256.1.1.1' is not an IPv4 address"},
        {{"control", "delete_ip 224.0.0.1"}, 2, "'224.0.0.1' cannot be a host's address"},
        {{"conrol", "x"}, 2, "unknown command 'conrol'; did you mean 'control'?"},
        {{overlong}, 2, "unknown command 'aaa"},
        {{"sa", "hide"}, 2, "unknown command 'hide'"},
        {{"--jsn"}, 2, "unknown option '--jsn'"},
        {{"status", "--jsn"}, 2, "unknown option '--jsn'; did you mean '--json'?"},
        {{"status", "node1"}, 2, "'node1' is one argument too many"},
        {{"help", "lgo"}, 2, "unknown command 'lgo'; did you mean 'log'?"},
    };
    for (const bad_input& each : cases) expect_refused(ats.ask(each.arguments), each);
    std::vector<std::string> many = {"resolve", "10.0.0.256"};
    for (int i = 0; i < 40; ++i) many.push_back("10.0.0.2");
    const program_result most_make_sense = ats.ask(many);
    EXPECT_EQ(most_make_sense.exit_code, 2);
    EXPECT_EQ(std::count(most_make_sense.out.begin(), most_make_sense.out.end(), '\n'), 40);
}

// Sends a line to the service through a plain connection, without libatsclient. Returns the service's answer.
std::string answer_to(const std::string& line, const std::string& socket)
{
    return raw_connection(socket).ask(line);
}

TEST(bad_input, service_survives_misbehaving_clients)
{
    const service ats({"--hosts", "2"});
    const struct {
        std::string line;
        const char* answer;
    } cases[] = {
        {"", "a request is one JSON object on a line"},
        {"status", "a request is one JSON object on a line"},
        {"[1]", "a request is one JSON object on a line"},
        {"{}", "a request has a name"},
        {R"({"request":7})", "a request has a name"},
        {R"({"request":"ping","id":-1})", "an id is an integer from 0"},
        {R"({"request":"hello","protocol":2})", "this service speaks protocol 1 only"},
        {std::string("\0\1", 2), "a request is one JSON object on a line"},
        {R"({"request":"fly"})", "does not know the request 'fly'"},
        {R"({"request":"resolve"})", "the request is malformed: key 'address' not found"},
        {R"({"request":"resolve","address":5})", "the request is malformed: type must be string, but is number"},
        {R"({"request":"status","host":[],"id":7})", R"("id":7)"},
        {R"({"request":"log","host":5})", "malformed"},
        {R"({"request":"log","level":"all"})", "'level' is an integer from 0 to 5"},
        {R"({"request":"trace","level":17})", "'level' is an integer from 0 to 5"},
        {R"({"request":"link","direction":"sideways"})", "'sideways' is neither 'up' nor 'down'"},
        {R"({"request":"link","direction":"up","port":4294967297})", "'port' is an integer from 1 to 254"},
        {R"({"request":"link","direction":"up","port":1e300})", "'port' is an integer from 1 to 254"},
        {R"({"request":"sa","action":"explode"})", "does not know the SA action 'explode'"},
        {R"({"request":"control","command":"set_host_name \u0000\u0001"})", "output"},
        {R"({"request":"resolve","address":"10.0.0.1","cached":1})", "malformed"},
        {R"({"request":"resolve","address":"10.0.0.1","cached":true,"fresh":true})", "exclude each other"},
        {R"({"request":"reverse","gid":"fe80::1","fresh":true})", "'fresh' is for addresses and paths only"},
        {R"({"request":"path","address":"10.0.0.1","gid":"fe80::1"})", "a path needs an 'address' or a 'gid'"},
        {R"({"request":"resolve","address":"10.0.0.1","within_ms":0})",
         "'within_ms' is an integer from 1 to 2147483647"},
        {R"({"request":"reverse","gid":"fe80::1","within_ms":-1})", "'within_ms' is an integer from 1"},
        {R"({"request":"path","gid":"fe80::1","within_ms":4294967297})", "'within_ms' is an integer from 1"},
        {R"({"request":"resolve","name":"node1","within_ms":"soon"})", "'within_ms' is an integer from 1"},
        {R"({"request":"log","level":4294967296})", "'level' is an integer from 0 to 5"},
        {R"({"request":"ping","x":)" + std::string(30'000, '[') + std::string(30'000, ']') + "}", "members are texts"},
        {R"({"request":"ping"})" + std::string(100'000, ' '), "a line has at most 65536 bytes"},
        {std::string(3 << 20, 'x'), "a line has at most 65536 bytes"},
    };
    for (const auto& each : cases)
        EXPECT_THAT(answer_to(each.line, ats.socket()), HasSubstr(each.answer)) << each.line.substr(0, 80);
    raw_connection stranger(ats.socket(), false);
    EXPECT_THAT(stranger.ask(R"({"request":"ping"})"), HasSubstr("say hello first"));
    EXPECT_EQ(stranger.read(), "(hung up)");
    raw_connection hasty(ats.socket(), false); // closes its side before it reads
    hasty.write(std::string(raw_connection::hello) + "\n{\"request\":\"status\"}\n{\"half\":");
    shutdown(hasty.fd(), SHUT_WR);
    EXPECT_THAT(hasty.read(), HasSubstr("protocol"));
    EXPECT_THAT(hasty.read(), HasSubstr("uptime_seconds"));
    EXPECT_EQ(hasty.read(), "(hung up)");
    for (int i = 0; i < 2000; ++i) raw_connection(ats.socket(), false).write("{\"request\":");
    // The service must first notice that those clients have left.
    EXPECT_TRUE(eventually([&] { return ats.ask({"set-name", "plain"}).exit_code == 0; }));
    EXPECT_THAT(ats.ask({"status"}).out, HasSubstr("node1: ats"));
}

// A client that exceeds the limits of its user is refused, and must not disturb other clients.
TEST(bad_input, limits_hold_for_each_user)
{
    const scratch_folder folder;
    write_file(folder / "config", "[limits]\nconnections = 3\nquestions = 3\nunread_bytes = 65536\n[[host]]\naddress = "
                                  "\"10.0.0.1\"\n");
    const service ats({"--config", folder / "config"});
    raw_connection first(ats.socket()), reader(ats.socket());
    auto large = std::make_unique<raw_connection>(ats.socket());
    raw_connection fourth(ats.socket(), false);
    EXPECT_THAT(fourth.read(), HasSubstr("this user has 3 connections already"));
    EXPECT_EQ(fourth.read(), "(hung up)");
    const std::string padding(4000, 'x');
    large->write(R"({"request":"log","follow":true,"padding":")" + padding + "\"}\n"); // this request never ends
    EXPECT_THAT(large->read(), HasSubstr("\"line\""));
    const std::string status = R"({"request":"status"})";
    EXPECT_THAT(first.ask(status), HasSubstr("this user has questions of 4"));
    large.reset();
    EXPECT_TRUE(eventually([&] { return first.ask(status).find("uptime_seconds") != std::string::npos; }));
    first.ask(R"({"request":"sa","action":"silence","state":"on"})");
    for (int i = 1; i <= 4; ++i)
        first.write(R"({"request":"resolve","address":"10.0.1.)" + std::to_string(i) + "\",\"id\":4}\n");
    EXPECT_THAT(first.read(), HasSubstr("this user has 3 questions outstanding already"));
    // If a client does not read its answers, the service does not read its requests any more. Then send() fails.
    const std::string status_line = status + "\n";
    while (send(reader.fd(), status_line.data(), status_line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) continue;
    EXPECT_THAT(first.ask(R"({"request":"ping"})"), HasSubstr("alive"));
}

// Sixteen lookups, or four verifications, fill the way to a silent SA. The next question of the same client has one
// millisecond, and so has one with a wrong member. Another client asks the same question without a limit.
TEST(bad_input, service_does_not_ask_questions_whose_time_is_over)
{
    const service ats({"--hosts", "1"});
    raw_connection client(ats.socket()), other(ats.socket());
    const struct {
        int busy_count;
        std::string members;
    } cases[] = {{16, ""}, {4, R"(,"verify":true)"}};
    for (const auto& each : cases) {
        const auto question = [&](int id) {
            return R"({"request":"resolve","address":"10.0.1.)" + std::to_string(id) +
                   "\",\"id\":" + std::to_string(id) + each.members;
        };
        client.ask(R"({"request":"sa","action":"silence","state":"on"})");
        std::string lines;
        for (int i = 1; i <= each.busy_count; ++i) lines += question(i) + "}\n";
        client.write(lines + question(98) + ",\"within_ms\":1,\"host\":5}\n" + question(99) + ",\"within_ms\":1}\n");
        other.write(question(99) + "}\n");
        std::string answers;
        for (int i = 0; i < each.busy_count + 2; ++i) answers += client.read() + "\n";
        const char* const late_answer =
            R"({"id":99,"status":"timed out","source":null,"microseconds":0,)"
            R"("reason":"the time of the question (within_ms) was over before its turn came"})";
        EXPECT_THAT(answers, HasSubstr(late_answer));
        EXPECT_THAT(answers, HasSubstr("type must be string, but is number\",\"exit_code\":2,\"id\":98"));
        client.ask(R"({"request":"sa","action":"silence","state":"off"})");
        EXPECT_THAT(other.read(), testing::AllOf(HasSubstr("\"id\":99"), testing::Not(HasSubstr("within_ms"))));
    }
}

TEST(bad_input, service_without_descriptors_accepts_again_when_clients_leave)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers of a service need descriptors themselves";
#endif
    const service ats({"--hosts", "1"});
    constexpr int limit = 40;
    const rlimit few{limit, limit};
    ASSERT_EQ(prlimit(ats.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const std::filesystem::directory_iterator none;
    const auto used = [&] { return std::filesystem::directory_iterator("/proc/" + std::to_string(ats.pid()) + "/fd"); };
    {
        std::list<raw_connection> crowd;
        for (int i = 0; i < limit; ++i) crowd.emplace_back(ats.socket(), false);
        EXPECT_TRUE(eventually([&] { return std::distance(used(), none) >= limit; }));
    }
    EXPECT_EQ(ats.ask({"status"}).exit_code, 0);
}

// Programs connect and close their connections as fast as they can: at the socket for clients, or at the one for
// programs that use librdmacm.
TEST(bad_input, flood_of_connections_stops_neither_the_service_nor_its_end)
{
    for (const bool is_for_clients : {true, false}) {
        const scratch_folder folder;
        service ats({"--hosts", "1", "--acm-socket", folder / "acm"});
        raw_connection client(ats.socket());
        std::atomic<bool> is_over = false;
        const auto flood = [&, path = is_for_clients ? ats.socket() : folder / "acm"] {
            while (!is_over) raw_connection(path, false);
        };
        std::vector<std::thread> programs;
        for (int i = 0; i < 3; ++i) programs.emplace_back(flood);
        const auto is_alive = [&] { return client.ask(R"({"request":"ping"})").find("alive") != std::string::npos; };
        int answers = 0;
        while (answers < 20 && is_alive()) ++answers;
        EXPECT_EQ(answers, 20);
        kill(ats.pid(), SIGTERM);
        EXPECT_TRUE(eventually([&] { return ats.output().find("all hosts have unloaded") != std::string::npos; }));
        is_over = true;
        for (std::thread& program : programs) program.join();
        EXPECT_EQ(ats.stop(0), 0) << ats.complaints();
    }
}

// Hosts need address space for threads, and descriptors for the code of their modules. Here one of these is used up
// while the service starts.
TEST(bad_input, limits_that_end_a_start_are_named_and_nothing_is_left_behind)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers themselves need more than these limits";
#endif
    const std::pair<fabric_tools::process_limit, const char*> cases[] = {
        {{RLIMIT_AS, rlim_t{300} << 20}, " does not start: the address space is used up (the limit is 300 MiB): raise"},
        {{RLIMIT_NOFILE, 6}, " does not start: no more files can be opened (the limit is 6): raise"},
        {{RLIMIT_NOFILE, 10},
         "ats: no more files can be opened (the limit is 10): raise"}, // the server needs some descriptors for clients
    };
    for (const auto& [limit, complaint] : cases) {
        const scratch_folder folder;
        const std::vector<std::string> arguments = {"run", "--hosts", "100", "--socket", folder / "socket"};
        const int exit_code = ats_process(arguments, folder / "out", folder / "err", limit).wait();
        expect_refused({exit_code, text_of_file(folder / "out"), text_of_file(folder / "err")},
                       {arguments, 1, complaint});
        EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
        EXPECT_FALSE(std::filesystem::exists(folder / "socket.lock"));
    }
}

TEST(bad_input, service_whose_memory_is_used_up_unloads_its_hosts_and_says_why)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need memory themselves";
#endif
    service ats({"--hosts", "1", "--log-kib", "65536"});
    EXPECT_EQ(ats.ask({"trace", "5"}).exit_code, 0);
    const size_t used_bytes = std::stoul(text_of_file("/proc/" + std::to_string(ats.pid()) + "/statm")) * getpagesize();
    const rlimit no_more{used_bytes, used_bytes};
    ASSERT_EQ(prlimit(ats.pid(), RLIMIT_AS, &no_more, nullptr), 0);
    EXPECT_TRUE(eventually([&] {
        ats.ask({"resolve", "10.0.0.1", "--verify"}); // the log grows
        return !std::filesystem::exists(ats.socket());
    }));
    EXPECT_EQ(ats.stop(0), 1);
    EXPECT_THAT(ats.output(), HasSubstr("all hosts have unloaded"));
    EXPECT_THAT(ats.complaints(), StartsWith("ats: the memory was used up, so all hosts were stopped"));
}

// The first lookup that no cache answers needs a thread. If the thread cannot start, only this lookup fails: the
// service keeps its reserve of memory and continues.
TEST(bad_input, shortage_that_a_service_survives_does_not_fail_its_stop)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need memory themselves";
#endif
    service ats({"--hosts", "2"});
    const auto set_limit = [&](rlim_t limit) {
        const rlimit address_space{limit, RLIM_INFINITY};
        ASSERT_EQ(prlimit(ats.pid(), RLIMIT_AS, &address_space, nullptr), 0);
    };
    const size_t used_bytes = std::stoul(text_of_file("/proc/" + std::to_string(ats.pid()) + "/statm")) * getpagesize();
    set_limit(used_bytes + (size_t{2} << 20));
    EXPECT_THAT(ats.ask({"resolve", "10.0.0.2"}).err, HasSubstr("the address space is used up"));
    set_limit(RLIM_INFINITY);
    EXPECT_EQ(ats.ask({"resolve", "10.0.0.2"}).exit_code, 0);
    EXPECT_EQ(ats.stop(), 0);
    EXPECT_EQ(ats.complaints(), "");
}

TEST(bad_input, lost_output_is_a_failure)
{
    const scratch_folder folder;
    EXPECT_EQ(ats_process({"--version"}, "/dev/full", folder / "err").wait(), 1);
    EXPECT_EQ(text_of_file(folder / "err"), "ats: not all of the output could be written\n");
}

TEST(bad_input, wrong_options_of_run_are_refused_before_anything_starts)
{
    const scratch_folder folder;
    const auto config = [&](const std::string& name, const std::string& text) {
        write_file(folder / name, text);
        return folder / name;
    };
    const std::string socket = folder / "socket";
    write_file(folder / "file", "x");
    const bad_input cases[] = {
        {{"--hosts", "0"}, 2, "write a number from 1 to 1000"},
        {{"--log-kib", "3"}, 2, "write a number from 16 to 1048576"},
        {{"--hosts", "2.5"}, 2, "--hosts = 2.5 is not a whole number"},
        {{"--hosts", "2", "--config", config("ok", "[[host]]")}, 2, "cannot go together with"},
        {{"--config", folder / "missing"}, 2, "missing"},
        {{"--config", config("parameter", "[[host]]\n[host.ats]\nats_speed = 1")}, 2, "ats_ipaddr_str"},
        {{"--config", config("number", "[[host]]\n[host.ibat]\nibat_retries = \"x\"")}, 2, "ibat_retries"},
        {{"--modules", folder / "missing"}, 2, "missing"},
        {{"--fabric", "umad"}, 2, "needs its address: add --address"},
        {{"--fabric", "umad", "--address", "127.0.0.1"}, 2, "it is a loopback address"},
        {{"--fabric", "umad", "--address", "10.0.0.1", "--name", "a b"}, 2, "'a b' cannot be a host name"},
        {{"--fabric", "umad", "--hosts", "2"}, 2, "--hosts is for the embedded fabric"},
        {{"--fabric", "embedded", "--port-interval", "50"}, 2, "--port-interval is for --fabric umad"},
        {{"--hca", "mlx5_0"}, 2, "--hca needs --fabric"},
        {{"--fabric", "embedded", "--address", "10.0.0.1"}, 2, "--address is for --fabric umad"},
        {{"--fabric", "umad", "--sa-delete-pkey", "maybe"}, 2, "write auto, on or off"},
        {{"--capture", folder / "no/all.pcap"}, 2, "cannot write the capture"},
        {{"--socket", std::string(200, 's')}, 2, "a socket's path has 1 to 107 bytes"},
        {{"--socket", folder / "missing/socket"}, 2, "choose another path with --socket"},
        {{"--socket", folder / "file"}, 2, "exists and is not a socket"},
        {{"--mount", folder / "missing"}, 2, mounts_work() ? "make it with mkdir" : "mount"},
        {{"--mount", folder / "file"}, 2, mounts_work() ? "is not a folder" : "mount"},
    };
    for (bad_input each : cases) {
        each.arguments.insert(each.arguments.begin(), "run");
        if (std::ranges::find(each.arguments, "--socket") == each.arguments.end())
            each.arguments.insert(each.arguments.end(), {"--socket", socket});
        program_result result = run_ats(each.arguments);
        result.err.erase(std::min(result.err.size(), result.err.find("\n  ["))); // lines of the host's log follow
        expect_refused(result, each);
        EXPECT_FALSE(std::filesystem::exists(socket));
    }
    EXPECT_EQ(text_of_file(folder / "file"), "x");
    const program_result no_modules = run_ats({"run", "--modules", folder / "", "--socket", socket});
    EXPECT_EQ(no_modules.exit_code, 1);
    EXPECT_THAT(no_modules.err, HasSubstr("no module image at"));
}

TEST(bad_input, missing_service_is_reported_and_a_stale_socket_is_replaced_but_not_a_live_one)
{
    std::optional<service> ats(std::in_place, std::vector<std::string>{"--hosts", "1"});
    const std::string socket = ats->socket();
    expect_refused(run_ats({"run", "--socket", socket}), {{"live"}, 2, "a service is listening on"});
    EXPECT_EQ(ats->ask({"resolve", "10.0.0.1"}).exit_code, 0);
    ASSERT_TRUE(std::filesystem::remove(socket));
    EXPECT_TRUE(eventually([&] {
        return ats->ask({"resolve", "10.0.0.1"}).exit_code == 0;
    })) << "the service must make the missing file of its socket again";
    const auto checked_socket = [&] { return run_ats({"check", "--socket", socket}).out; };
    kill(ats->pid(), SIGSTOP);
    EXPECT_THAT(checked_socket(), HasSubstr(socket + ": a service runs"));
    expect_refused(ats->ask({"status", "--timeout", "0.2"}),
                   {{"stopped"}, 3, "shows no sign of life for 0.2 s: it is"});
    EXPECT_EQ(ats->stop(SIGKILL), -SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(socket));

    EXPECT_THAT(checked_socket(), HasSubstr(socket + " is stale: a new service replaces it"));
    expect_refused(run_ats({"status", "--socket", socket}), {{"stale"}, 3, "no service on"});
    const std::string lock_file = socket + ".lock"; // in /tmp, another user may make a pipe with this name
    std::filesystem::remove(lock_file);
    ASSERT_EQ(mkfifo(lock_file.c_str(), 0600), 0);
    expect_refused(run_ats({"status", "--socket", socket}), {{"a pipe as the lock file"}, 3, "no service on"});
    std::filesystem::remove(lock_file);
    {
        const scratch_folder folder;
        ats_process successor({"run", "--hosts", "1", "--socket", socket}, folder / "out", folder / "err");
        EXPECT_TRUE(eventually([&] { return run_ats({"status", "--socket", socket}).exit_code == 0; }));
        struct stat attributes {
        };
        ASSERT_EQ(stat(socket.c_str(), &attributes), 0);
        EXPECT_EQ(attributes.st_mode & 0777, 0600u);
        EXPECT_EQ(successor.stop(), 0);
    }
    expect_refused(run_ats({"status", "--socket", socket}), {{"none"}, 3, "start one with 'ats run'"});
}

TEST(bad_input, invalid_answers_give_one_clear_line)
{
    const scratch_folder folder;
    for (const char* nonsense : {R"({"hosts":[{"name":"x"}]})", R"({"error":5})", "{}", "[1]", "status"}) {
        const auto react = client_tests::after_hello([&](const json& request) {
            json answer = json::parse(nonsense, nullptr, false);
            if (!answer.is_object()) return client_tests::reaction{std::string(nonsense) + "\n"};
            answer["id"] = request.at("id");
            return client_tests::reaction{answer.dump() + "\n"};
        });
        client_tests::fake_service service(react, 16, folder / "socket");
        service.serve();
        const program_result result = run_ats({"status", "--host", "x", "--socket", folder / "socket"});
        EXPECT_EQ(result.exit_code, 3) << nonsense;
        EXPECT_THAT(result.err,
                    testing::ContainsRegex("^ats: (the service gave|the program that listens on)[^\n[]*\n$"));
    }
}

TEST(bad_input, services_that_start_at_once_do_not_remove_each_others_socket)
{
    const scratch_folder folder;
    const auto first = cli::listening_socket::open(folder / "socket", false).value();
    // Now the first service is like one that has taken the lock but has not created its socket yet.
    std::filesystem::remove(folder / "socket");
    EXPECT_FALSE(cli::listening_socket::open(folder / "socket", false));
}

// Sends a line in a process of another user. Returns the answer, or "(not connected)" if the mode of the socket's file
// forbids the connection.
std::string answer_to_another_user(const std::string& socket, const std::string& line)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t other = fork();
    if (other == 0) {
        constexpr gid_t nogroup = 65534;
        if (setgroups(0, nullptr) != 0 || setgid(nogroup) != 0 || setuid(65534) != 0) _exit(1);
        raw_connection connection(socket);
        const std::string message = connection.is_open() ? connection.ask(line) : "(not connected)";
        _exit(write(ends[1], message.data(), message.size()) == static_cast<ssize_t>(message.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string message(4096, '\0');
    message.resize(static_cast<size_t>(std::max<ssize_t>(0, read(ends[0], message.data(), message.size()))));
    close(ends[0]);
    waitpid(other, nullptr, 0);
    return message;
}

TEST(bad_input, other_users_may_ask_what_the_configuration_allows)
{
    if (geteuid() != 0) GTEST_SKIP() << "only root can start a process of another user";
    const std::string resolve = R"({"request":"resolve","address":"10.0.0.1"})";
    // The order does not wait for the SA, which may still be busy with the host's first registration.
    const std::string order = R"({"request":"set-name","name":"mine","no_wait":true})";
    const std::string log = R"({"request":"log","level":1})", all_of_log = R"({"request":"log"})";
    const struct {
        std::string access, line, answer;
    } cases[] = {
        {"", resolve, "(not connected)"},
        {"questions = \"everyone\"", resolve, "\"status\":\"ok\""},
        {"questions = \"everyone\"", order, "'set-name' is an order, and this service takes orders from root only"},
        {"questions = \"everyone\"", log, "shows its log only to those who may give orders"},
        {"questions = \"everyone\"\nlog_level = 2", log, "\"line\""},
        {"questions = \"everyone\"\nlog_level = 2", all_of_log, "shows you its log up to level 2"},
        {"questions = \"nogroup\"", resolve, "\"status\":\"ok\""},
        {"questions = \"daemon\"", resolve, "this service answers the group daemon only"},
        {"orders = \"nogroup\"", order, "\"done\""},
    };
    for (const auto& [access, line, answer] : cases) {
        const scratch_folder folder;
        write_file(folder / "config", "[access]\n" + access + "\n[[host]]\naddress = \"10.0.0.1\"\n");
        const service ats({"--config", folder / "config"});
        chmod((ats.folder / "").c_str(), 0755);
        EXPECT_THAT(answer_to_another_user(ats.socket(), line), HasSubstr(answer)) << access << ": " << line;
    }
}

TEST(bad_input, busy_or_deserted_mount_points_are_refused_and_nobody_else_is_disturbed)
{
    if (!mounts_work()) GTEST_SKIP() << "no FUSE here";
    const scratch_folder folder;
    const std::string mnt = folder / "mnt";
    mkdir(mnt.c_str(), 0755);
    service first({"--hosts", "1", "--mount", mnt});
    const bad_input busy = {{"run", "--mount", mnt, "--socket", folder / "other"}, 2, "already: choose another folder"};
    expect_refused(run_ats(busy.arguments), busy);
    EXPECT_THAT(text_of_file(mnt + "/node1/proc/dorvex/ats/version"), HasSubstr("ats " ATS_VERSION));

    EXPECT_EQ(first.stop(SIGKILL), -SIGKILL);
    const bad_input no_service = {busy.arguments, 2, "is a mount whose service is gone: run 'fusermount3 -u"};
    expect_refused(run_ats(no_service.arguments), no_service);
    EXPECT_EQ(system(("fusermount3 -u " + mnt).c_str()), 0); // the advice in the line must work
    service second({"--hosts", "1", "--mount", mnt});
    EXPECT_EQ(second.stop(), 0);
}

} // namespace
