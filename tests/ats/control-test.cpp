// Writes to the control file. Tests how a text is split into words, and the effect of each command with good and bad
// words.
#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

const lines usage = {
    "usage:",
    "show_local   - shows the local data (used in the ATS SER).",
    "dump_requests - shows the outstanding requests.",
    "rarp         - [GID] Initiate ats rarp request.",
    "set_host_name - [hostname] Set new hostname",
    "set_ip_addrs - [ip_addrs] Set new ip address",
    "sa_verify_period - [seconds_period skew_percentage] Set new verification duration (0=off)",
    "delete_ip    - [ip_addrs] Remove ip address from sa",
};

lines unknown(const std::string& words)
{
    lines expected = {"kqt /proc: unknown command:" + words};
    expected.insert(expected.end(), usage.begin(), usage.end());
    return expected;
}

std::string repeated(const std::string& word, int times)
{
    std::string all;
    while (times-- > 0) all += word;
    return all;
}

struct control : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered({.ports = {2, 1}});

    std::string verification()
    {
        host.read("dorvex/ats/control");
        return host.log().back();
    }
};

TEST_F(control, bad_input_is_logged_and_changes_nothing)
{
    const std::string nul(1, '\0'), forty(40, 'w'), forty_five = forty + "tail!";
    const auto api_error = [](const std::string& rest) { return "ERROR api/ats_proc_cmd_" + rest; };
    const struct {
        std::string command;
        lines expected;
    } table[] = {
        {"", usage},
        {" \t\n\v\f\r ", usage},
        {"help", unknown(" 'help'")},
        {"RARP 0x1\n", unknown(" 'RARP' '0x1'")},
        {"\n\n  two\t\v\f\rwords \n", unknown(" 'two' 'words'")},
        {forty, unknown(" '" + forty + "'")},
        {forty_five, unknown(" '" + forty + "' 'tail!'")},
        {forty + forty + "x y", unknown(" '" + forty + "' '" + forty + "' 'x' 'y'")},
        {repeated("w ", 29) + "x", unknown(repeated(" 'w'", 29) + " 'x'")},
        {repeated("w ", 35), unknown(repeated(" 'w'", 30))},
        {repeated("w ", 29) + forty_five, unknown(repeated(" 'w'", 29) + " '" + forty + "'")},
        {repeated("w ", 29) + forty, unknown(repeated(" 'w'", 29) + " '" + forty + "'")},
        {repeated(forty + " ", 30), unknown(repeated(" '" + forty + "'", 30))},
        {"half" + nul + "rest", unknown(" 'half'")},
        // The last byte is not white space, so a second word counts. It begins with the NUL byte, so it is empty.
        {"half " + nul + "rest", unknown(" 'half' ''")},
        {"half" + nul + " ", usage},
        {nul, unknown(" ''")},
        {"w" + std::string(4095, ' '), unknown(" 'w'")},
        {"w" + std::string(4096, ' '), {"ATS - a command has at most 4096 bytes, ignoring one of 4097"}},
        {"rarp", {"Wrong usage. <1>"}},
        {"rarp 1 2\n", {"Wrong usage. <3>"}},
        {"set_host_name", {api_error("update_hostname: Wrong usage. <1>")}},
        {"set_host_name two words", {api_error("update_hostname: Wrong usage. <3>")}},
        {"set_ip_addrs", {"Wrong usage. <1>"}},
        {"set_ip_addrs 1.2.3\n",
         {"ATS - can't parse ip addr 1.2.3", api_error("update_ip_addrs: ats_sa_update_ip_addrs FAIL")}},
        {"sa_verify_period", {"Wrong usage: <period   skew percentage>     1"}},
        {"sa_verify_period 5", {"Wrong usage: <period   skew percentage>     2"}},
        {"sa_verify_period x 5", {"ATS - can't parse values 0"}},
        {"sa_verify_period 5 x", {"ATS - can't parse values 0"}},
        {"sa_verify_period 9999999999 5", {"ATS - can't parse values 0"}},
        {"sa_verify_period 5 -99999999999999999999", {"ATS - can't parse values 0"}},
        {"delete_ip", {"Wrong usage. <1>"}},
        {"delete_ip 10.1.2", {"ATS - can't parse ip addr 10.1.2"}},
        {"show_local", {}},
        {"dump_requests with words", {}},
    };
    const std::string verified_before = verification();
    for (const auto& [command, expected] : table) {
        SCOPED_TRACE(testing::PrintToString(command));
        EXPECT_EQ(host.control(command), static_cast<int>(command.size()));
        EXPECT_EQ(host.log(), expected);
    }
    EXPECT_THAT(w.requests(), IsEmpty());
    EXPECT_EQ(verification(), verified_before);
}

TEST_F(control, an_unreadable_buffer_is_logged)
{
    host.faults().fail_calls("copy_from_user", 1);
    EXPECT_EQ(host.control("help"), 4);
    EXPECT_THAT(host.log(), ElementsAre("ATS - can't read the command"));
}

TEST_F(control, verification_settings_are_kept_within_their_range)
{
    const std::map<std::string, std::string> table = {
        {"300 101", "SA verification period:300   verification skew(%): 100"},
        {"300 -5", "SA verification period:300   verification skew(%): 0"},
        {"0 0", "SA verification period:0   verification skew(%): 0"},
        {"-7 7", "SA verification period:-7   verification skew(%): 7"},
        {"+61s 2%", "SA verification period:61   verification skew(%): 2"},
        {"2147483647 1", "SA verification period:2147483647   verification skew(%): 1"},
        {"-2147483648 1", "SA verification period:-2147483648   verification skew(%): 1"},
    };
    EXPECT_EQ(verification(), "SA verification period:60   verification skew(%): 1");
    for (const auto& [command, report_line] : table) {
        host.control("sa_verify_period " + command);
        EXPECT_EQ(verification(), report_line);
    }
}

// delete_ip deletes the record of the first HCA. The records that this HCA registers later have the given address.
TEST_F(control, delete_ip_deletes_the_record_and_sets_the_address_of_the_next)
{
    const std::string second_record = "node1.mthca1.1 10.0.0.1 node1";
    host.link_up(1, 1);
    w.requests();
    host.control("delete_ip 10.1.2.3\n");
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1"));
    EXPECT_THAT(w.records(), ElementsAre(second_record));
    w.at(70'000);
    EXPECT_THAT(w.records(), testing::UnorderedElementsAre("node1.1 10.1.2.3 node1", second_record));
    host.link_up(2);
    host.link_down(1);
    EXPECT_THAT(w.records(), testing::UnorderedElementsAre("node1.2 10.1.2.3 node1", second_record));
}

// rarp logs the status of its request at once. If IBAT's cache has no answer, the SA's answer or the time-out is logged
// later.
TEST_F(control, rarp_logs_the_request_and_its_answer)
{
    const auto first_line = [](const std::string& text) { return "DEBUG api/ats_proc_cmd_rarp: Status " + text; };
    const auto callback_line = [](const std::string& text) { return "DEBUG api/ats_dummy_user_cb: Status " + text; };
    const auto lines_of_rarp = [&](const std::string& gid) {
        host.log();
        host.control("rarp " + gid);
        w.at(host.machine().exec().now() + 2000);
        lines log = host.log();
        std::erase_if(log, [](const std::string& line) {
            return line.find(": Status ") == std::string::npos && line.find(": IP:") == std::string::npos;
        });
        return log;
    };
    host.trace(trace_debug);
    EXPECT_THAT(lines_of_rarp(world::format_gid(host.gid(1))),
                ElementsAre(first_line("PENDING received."), callback_line("OK received."),
                            "DEBUG api/ats_dummy_user_cb: IP:10.0.0.1"));
    EXPECT_THAT(lines_of_rarp("0x99"), ElementsAre(first_line("PENDING received."), callback_line("-256 received.")));
    w.subnet.faults.answer_with(0x0400, 1);
    EXPECT_THAT(lines_of_rarp("0x99"), ElementsAre(first_line("PENDING received."), callback_line("ERROR received.")));
    w.subnet.faults.sa_silent = true;
    EXPECT_THAT(lines_of_rarp("0x99"),
                ElementsAre(first_line("PENDING received."), callback_line("TIMEOUT received.")));
    w.requests();
    host.peers().cache = {{kq_gid_t{0x99, 0}, ip_of("10.0.0.9")}};
    EXPECT_THAT(lines_of_rarp("0x99"),
                ElementsAre(first_line("OK received."), "DEBUG api/ats_proc_cmd_rarp: IP:10.0.0.9"));
    EXPECT_THAT(w.requests(), IsEmpty()) << "IBAT's cache has the answer, so the SA is not asked";
    host.link_down(1);
    EXPECT_THAT(lines_of_rarp("0x98"),
                ElementsAre("ERROR api/ats_proc_cmd_rarp: Status ERROR received.", callback_line("TIMEOUT received.")));
}

} // namespace
