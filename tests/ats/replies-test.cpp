// A host receives good and malformed replies. Tests the log lines of each reply, and the record that the module then
// passes to IBAT. The replies come from a port that is not the SA's.
#include "tests/ats/ats-world.h"

namespace
{

constexpr kq_gid_t far_gid = {0x0123456789ABCDEF, 0xFE80000000000000};
constexpr uint32_t answer_mask = 0x207, own_answer_mask = 0x8207;

struct replies : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered({.ports = {2}, .trace = trace_debug});

    // The log lines about an answer, without the line of its datagram and those of the functions ats_process_...().
    std::vector<std::string> lines()
    {
        std::vector<std::string> log = host.log();
        std::erase_if(log, [](const std::string& line) {
            return line.find("Datagram <PTR>") != std::string::npos || line.find("ats_process_") != std::string::npos;
        });
        return log;
    }
};

std::string decoder_line(const std::string& level, const std::string& message)
{
    return level + " sa/ats_sa_gsi_decode_recv_dtgrm: " + message;
}

const std::string record_line =
    decoder_line("DEBUG", " ServiceRecord reply MAD received, transaction-id 0x0700000000000000");
const std::string success_line = decoder_line("DEBUG", " Incoming mad has status SUCCESS.");
const std::string header_warning = decoder_line("WARNING", "Invalid base version, mgmt class or class version");
const std::string delete_line = "DEBUG sa/ats_sa_gsi_recv_compl_cb:  Drop delete response mad";
const std::string own_address_line =
    decoder_line("DEBUG", " arp reply for local ip addr 10.0.0.1 setting it to be static !");

fabric::mad_bytes with_byte(fabric::mad_bytes mad, size_t offset, uint8_t value)
{
    mad[offset] = value;
    return mad;
}

TEST_F(replies, each_kind_logs_its_lines_and_only_some_reach_ibat)
{
    const auto bad_status = [](const std::string& status) {
        return decoder_line("ERROR", "ATS - Incoming mad has an error status <" + status + "> .");
    };
    const auto reply = [](uint16_t status, uint16_t attribute = 0x0031, uint8_t method = 1) {
        return sa_reply(far_gid, "10.0.0.9", status, method, attribute);
    };
    struct {
        const char* name;
        fabric::mad_bytes mad;
        std::vector<std::string> lines;
        bool reaches_ibat;
        uint32_t mask;
    } table[] = {
        {"an answer", reply(0), {record_line, success_line}, true, answer_mask},
        {"an answer to a Set", reply(0, 0x0031, 2), {record_line, success_line}, true, answer_mask},
        {"the host's own address",
         sa_reply(far_gid, "10.0.0.1"),
         {record_line, success_line, own_address_line},
         true,
         own_answer_mask},
        {"base version 2", with_byte(reply(0), 0, 2), {header_warning, record_line, success_line}, true, answer_mask},
        {"class version 1", with_byte(reply(0), 2, 1), {header_warning, record_line, success_line}, true, answer_mask},
        {"no records", reply(0x0300), {record_line, success_line}, true, answer_mask},
        {"class-specific code 9", reply(0x0900), {record_line, success_line}, true, answer_mask},
        {"the highest class-specific code", reply(0xFF00), {record_line, success_line}, true, answer_mask},
        {"busy", reply(0x0001), {record_line, bad_status("0x0001")}, false, 0},
        {"invalid field, with a class-specific code", reply(0x031C), {record_line, bad_status("0x031C")}, false, 0},
        {"an answer to a Delete", reply(0, 0x0031, 0x15), {record_line, success_line, delete_line}, false, 0},
        {"an answer to a Delete: no records",
         reply(0x0300, 0x0031, 0x15),
         {record_line, success_line, delete_line},
         false,
         0},
        {"all zeros except the class and the method",
         with_byte(with_byte({}, 1, 3), 3, 0x81),
         {header_warning, decoder_line("ERROR", "ATS - Unrequested/unsupported attribute ID. <0x0000>")},
         true,
         0},
    };
    for (const auto& each : table) {
        SCOPED_TRACE(each.name);
        w.inject(host, 1, each.mad);
        EXPECT_EQ(lines(), each.lines);
        ASSERT_EQ(host.peers().replies.size(), each.reaches_ibat ? 1u : 0u);
        EXPECT_EQ(each.reaches_ibat ? host.peers().replies[0].mask : 0, each.mask);
        host.peers().replies.clear();
    }
    const std::vector<uint16_t> unsupported_attributes = {0x0010, 0x0036, 0x3100};
    for (const uint16_t attribute : {0x0002, 0x0003, 0x0010, 0x0011, 0x0012, 0x0035, 0x0036, 0x0038, 0x003A, 0x3100}) {
        const char* word =
            std::ranges::count(unsupported_attributes, attribute) ? "Unrequested/unsupported" : "unexpected";
        char line[80];
        std::snprintf(line, sizeof line, "ATS - %s attribute ID. <0x%04X>", word, attribute);
        w.inject(host, 1, reply(0, attribute));
        EXPECT_EQ(lines(), std::vector{decoder_line("ERROR", line)});
        EXPECT_EQ(host.peers().replies.back().mask, 0u);
    }
    EXPECT_THAT(w.requests(), IsEmpty());
}

TEST_F(replies, a_reply_to_ibat_keeps_nothing_of_the_previous_reply)
{
    w.inject(host, 1, sa_reply(far_gid, "10.0.0.9"));
    host.link_up(2);
    w.inject(host, 2, sa_reply({}, "0.0.0.0", 0, MAD_METHOD_GET, SA_ATTR_PATH_RECORD));
    w.inject(host, 2, sa_reply(far_gid, "10.0.0.8", 0x0300));
    ASSERT_EQ(host.peers().replies.size(), 3u);

    ibat_arp_data_t expected{};
    const auto is_expected = [&](const ibat_arp_data_t& reply) { return memcmp(&reply, &expected, sizeof reply) == 0; };
    expected.mask = answer_mask;
    expected.arp_operation = IBAT_ARP_REPLY;
    expected.src_ip = ip_of("10.0.0.9");
    expected.dst_ip = ip_of("10.0.0.1");
    expected.gid = far_gid;
    expected.local_port_num = 1;
    EXPECT_TRUE(is_expected(host.peers().replies[0]));
    expected.src_ip = ip_of("10.0.0.8");
    expected.local_port_num = 2;
    EXPECT_TRUE(is_expected(host.peers().replies[2]));
    expected = {};
    expected.arp_operation = IBAT_ARP_REPLY;
    EXPECT_TRUE(is_expected(host.peers().replies[1]));

    host.control("set_ip_addrs 0.0.0.0");
    w.inject(host, 1, sa_reply(far_gid, "0.0.0.0"));
    EXPECT_EQ(host.peers().replies.back().mask, own_answer_mask) << "0.0.0.0 counts as the host's own address";
}

TEST_F(replies, dumps_show_the_record_and_terminate_a_long_name)
{
    fabric::mad_bytes mad = sa_reply(far_gid, "10.1.2.3");
    mad[56] = 0x12, mad[63] = 0x34; // service ID
    mad[80] = 0x81, mad[81] = 0x23; // P_Key
    mad[87] = 0x3C;                 // lease
    std::fill_n(mad.begin() + 104, 64, 'n');
    mad[168] = 0x01;
    for (int i = 0; i < 48; ++i) mad[184 + i] = static_cast<uint8_t>('1' + i);
    host.trace(trace_func);
    host.log();
    w.inject(host, 1, mad);
    std::vector<std::string> dump = host.log();
    std::erase_if(dump, [](const std::string& line) { return line.find("dump_service_record") == std::string::npos; });
    for (std::string& line : dump) line.erase(0, line.find(": ") + 2);
    const std::string rule(64, '=');
    EXPECT_THAT(dump, ElementsAre(rule, "service id   : 0x1200000000000034",
                                  "service gid  : 0xFE800000000000000123456789ABCDEF", "service pkey : 0x8123",
                                  "service lease: 0x3C", "service_name : " + std::string(63, 'n'),
                                  "service_data8 : 0x00000001 00000000 00000000 0302010a",
                                  "service_data16: 0x34333231 38373635 3c3b3a39 403f3e3d",
                                  "service_data32: 0x44434241 48474645 4c4b4a49 504f4e4d",
                                  "service_data64: 0x5857565554535251  605f5e5d5c5b5a59 ", "service_data32 string AEIM",
                                  rule));

    w.inject(host, 1, sa_reply(far_gid, "10.1.2.3"));
    EXPECT_THAT(host.log(), Contains("FUNC sa/ats_sa_dump_service_record_mad: service_data32 string "))
        << "four words of zeros print no character";
}

} // namespace
