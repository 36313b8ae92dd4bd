// One long scenario whose log is compared, line by line, with the expected log in story.txt. Users search logs for
// these lines, and scripts read these lines. So the text of each line is part of the module's contract.
#include <fstream>

#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

struct story : testing::Test {
    ats_world w;
    ats_host& host = w.add({.ports = {2, 1}, .trace = trace_func});
    lines log;

    // Runs one chapter, and appends its title and its log lines to `log`. Appends only one line of each dump of a
    // datagram; replies-test.cpp compares the other lines.
    void chapter(const std::string& title, const std::function<void()>& body)
    {
        log.push_back("== " + title);
        body();
        w.at(host.machine().exec().now());
        for (const std::string& line : host.log())
            if (line.find("ats_sa_dump_") == line.npos || line.find("service lease") != line.npos) log.push_back(line);
    }

    // Lets time pass until the module has checked its own record once more.
    void check() { w.at(host.machine().exec().now() + 63'000); }

    // Runs one chapter in which the next `times` calls of a kernel function fail.
    void failing(const std::string& call, uint64_t times, const std::string& title, const std::function<void()>& body)
    {
        chapter(title + ", " + call + " fails", [&] {
            host.faults().fail_calls(call, times);
            body();
            host.faults().disarm();
        });
    }
};

TEST_F(story, every_trace_line_stays_to_the_letter)
{
    const std::string other_gid = world::format_gid(host.gid(2)), unknown_gid = "0x99";
    chapter("load", [&] { host.load(); });
    chapter("link up", [&] { host.link_up(1); });
    chapter("standby", [&] { host.link_up(2); });
    chapter("second HCA", [&] { host.link_up(1, 1); });
    chapter("check", [&] { check(); });
    chapter("failover", [&] { host.link_down(1); });
    chapter("link up again", [&] { host.link_up(1); });
    chapter("SM change", [&] { EXPECT_TRUE(w.subnet.set_sm(99, 3)); });
    chapter("name", [&] { host.control("set_host_name other"); });
    chapter("address", [&] { host.control("set_ip_addrs 10.0.0.7"); });
    const auto set_name = host.symbol<int32_t (*)(const char*)>("ats_sa_set_hostname");
    chapter("name by call", [&] { host.run([&] { set_name("called"); }); });
    chapter("no name", [&] { host.run([&] { set_name(nullptr); }); });
    chapter("address lookup", [&] { host.resolve("10.0.0.7"); });
    chapter("GID lookup", [&] { host.control("rarp " + other_gid); });
    chapter("unknown GID", [&] { host.control("rarp " + unknown_gid); });
    chapter("bad GID", [&] { host.control("rarp 0x1z"); });
    chapter("short GID", [&] { host.control("rarp 0x"); });
    chapter("GID without prefix", [&] { host.control("rarp 1234"); });
    host.peers().cache = {{kq_gid_t{0x99, 0}, ip_of("10.0.0.9")}};
    chapter("cached GID", [&] { host.control("rarp " + unknown_gid); });
    host.peers().cache = {};
    w.subnet.faults.answer_with(0x0400, 1);
    chapter("refused GID", [&] { host.control("rarp " + unknown_gid); });
    w.subnet.faults.answer_with(0x0900, 1);
    chapter("odd refusal", [&] { host.control("rarp " + unknown_gid); });
    failing("kmalloc", 1, "GID lookup", [&] { host.control("rarp " + other_gid); });
    for (const char* call : {"gsi_dtgrm_pool_get", "gsi_post_send_dtgrm", "down_interruptible"}) {
        failing(call, 1, "GID lookup", [&] { host.control("rarp " + other_gid); });
        failing(call, 1, "address lookup", [&] { host.resolve("10.0.0.7"); });
        failing(call, 9, "name", [&] { host.control("set_host_name third"); });
        failing(call, 9, "address", [&] { host.control("set_ip_addrs 10.0.0.8"); });
        failing(call, 9, "delete", [&] { host.control("delete_ip 10.0.0.8"); });
        failing(call, 9, "check", [&] { check(); });
    }
    for (const char* call : {"kq_port_query", "kq_get_port_gid_tbl", "kq_get_port_partition_tbl"}) {
        host.link_down(1);
        host.log();
        failing(call, 9, "link up", [&] { host.link_up(1); });
    }
    w.subnet.forget_all();
    chapter("lost record", [&] { check(); });
    w.subnet.faults.sa_silent = true;
    chapter("silent SA", [&] { host.control("set_host_name fourth"); });
    chapter("check without answer", [&] { check(); });
    w.subnet.faults.sa_silent = false;
    chapter("check that loses its port", [&] {
        host.link_down(1, 1);
        for (w.requests(); w.requests().empty();) w.at(host.machine().exec().now() + 100);
        for (const int port : {1, 2}) host.link_down(port);
        check();
    });
    for (const int port : {1, 2}) host.link_up(port);
    host.link_up(1, 1);
    host.log();
    chapter("report", [&] { host.read("dorvex/ats/control"); });
    for (const int port : {1, 2}) host.link_down(port);
    host.link_down(1, 1);
    host.log();
    chapter("name without a port", [&] { host.control("set_host_name fifth"); });
    chapter("address without a port", [&] { host.control("set_ip_addrs 10.0.0.9"); });
    chapter("address lookup without a port", [&] { host.resolve("10.0.0.7"); });
    chapter("GID lookup without a port", [&] { host.control("rarp " + other_gid); });
    chapter("check without a port", [&] { check(); });
    host.link_up(1);
    host.log();
    w.subnet.faults.sa_silent = true;
    chapter("unload", [&] { host.unload(); });

    host.link_down(1);
    bool has_failed = true;
    for (uint64_t number = 1; has_failed; ++number)
        chapter("load with a failing call", [&] {
            host.faults().fail_nth(number);
            const ats::result<> result = host.try_load();
            has_failed = host.faults().failures() > 0;
            log.push_back(host.faults().failed_call());
            host.faults().disarm();
            if (result) host.unload();
        });

    const std::string path = ATS_SOURCE_DIR "/tests/ats/story.txt";
    lines expected;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) expected.push_back(line);
    if (log != expected) {
        std::ofstream copy("story.txt");
        for (const std::string& line : log) copy << line << "\n";
    }
    for (size_t i = 0; i < std::max(log.size(), expected.size()); ++i)
        ASSERT_EQ(i < log.size() ? log[i] : "the end", i < expected.size() ? expected[i] : "the end")
            << path << " line " << i + 1 << "; the actual log is in ./story.txt";
}

} // namespace
