// The texts of the module's two /proc files. A read of the file "control" writes a report to the log. The file
// "version" contains the version.
#include "module-version.h"
#include "tests/ats/ats-world.h"

namespace
{

TEST(report, shows_every_hca_and_port)
{
    ats_world w;
    w.subnet.add_hca("other", "hca", 8).value(); // uses eight LIDs; the LID of port 2 is then 11, which is 0xb
    ats_host& host = w.add({.ports = {2, 1}}).load();
    host.link_up(2);
    w.subnet.faults.drop_next_answers = 1;
    for (int i = 0; i < 10; ++i) host.control("rarp 0x99");
    host.control("sa_verify_period 300 7");
    host.log();
    EXPECT_EQ(host.read("dorvex/ats/control"), "");
    const auto port = [](int number, const char* state, const char* gid, const char* lid, const char* counters) {
        return "Port" + std::to_string(number) + " Info:\n=============\nPort State " + state +
               "\nPort service gid  : " + gid + "\nPort lid " + lid + "\nPort IP Address 10.0.0.1 (100000a)\n" +
               counters + "\n=================================================\n";
    };
    const char* none = "0x00000000000000000000000000000000";
    const std::string expected =
        "mthca0: ATS Ports Info\n==============\nThe Active Port Is Port Number 2\n" +
        port(1, "Down", none, "0x0 (0)", "Send Counter 0x0 , Receive Counter 0x0") +
        port(2, "Active", "0xFE800000000000000200000000020002", "0xb (11)", "Send Counter 0xC , Receive Counter 0xB") +
        "==============\n"
        "mthca1: ATS Ports Info\n==============\nThere is No Active Port !!!\n" +
        port(1, "Down", none, "0x0 (0)", "Send Counter 0x0 , Receive Counter 0x0") +
        "==============\n"
        "SA verification period:300   verification skew(%): 7\n";
    std::string report;
    for (const std::string& line : host.log()) report += line + "\n";
    EXPECT_EQ(report, expected);

    host.link_up(1);
    host.trace(trace_debug);
    host.read("dorvex/ats/control");
    const std::vector<std::string> lines = host.log();
    EXPECT_THAT(lines, Contains("Port State UP"));
    EXPECT_THAT(lines, Contains(StartsWith("DEBUG api/ats_proc_read: page = PTR, *start = PTR, off = 0, count = ")));
}

TEST(report, shows_the_version_whole_and_in_pieces)
{
    ats_world w;
    ats_host& host = w.add().load();
    const std::string whole = host.read("dorvex/ats/version");
    EXPECT_THAT(whole, testing::MatchesRegex("ats 1\\.21 ATS_1_21_RELEASE \\([0-9.]+\\) \\(hosted-[0-9.]+\\) "
                                             "\\([A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{4}\\) "
                                             "[0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
    host.run([&] {
        std::string pieces;
        for (size_t offset = 0; offset <= whole.size() + 10; offset += 10) {
            std::string piece;
            EXPECT_GE(host.machine().proc.read("dorvex/ats/version", offset, 10, &piece), 0);
            pieces += piece;
        }
        EXPECT_EQ(pieces, whole);
    });
    host.unload();
    EXPECT_EQ(host.leftovers(), "");
    EXPECT_TRUE(host.try_load()) << "the folders of the first load are used again";
    EXPECT_EQ(host.read("dorvex/ats/version"), whole);
}

// Some kernels call the read handler again and again until it reports the end of the file. Here the handler runs
// outside of a module, so the file contains the six bytes "Error\n".
TEST(report, reports_the_end_of_the_version)
{
    std::vector<int> ends;
    for (const auto& [offset, count] : {std::pair{0, 5}, {0, 6}, {4, 1}, {4, 2}, {6, 1}}) {
        char page[PROC_PAGE_SIZE], *start = page;
        ends.push_back(0);
        version_read_proc(page, &start, offset, count, &ends.back(), nullptr);
    }
    EXPECT_THAT(ends, ElementsAre(0, 1, 0, 1, 1));
}

} // namespace
