// Addresses and GIDs that other modules and users write as text. Tests which texts the module accepts, and which values
// it then sends to the SA. The last test is about the program's own parsers.
#include "tests/ats/ats-world.h"

namespace
{

struct text : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered();
};

TEST_F(text, ipv4_addresses_have_the_same_meaning_as_ever)
{
    const std::map<std::string, std::string> table = {
        {"10.0.0.1", "10.0.0.1"},
        {"1.2.3", "refused"}, // the fourth field is missing
        {"1.2.3.", "1.2.3.0"},
        {"1.2.3.4.5", "1.2.3.4"},
        {"1..3.4", "1.0.3.4"},
        {"...", "0.0.0.0"},
        {"..", "refused"},
        {"", "refused"},
        {"256.1.1.1", "0.1.1.1"},
        {"300.2.3.4", "44.2.3.4"},
        {"4294967295.1.1.1", "refused"}, // the module refuses this value
        {"1.1.1.4294967295", "refused"},
        {"8589934591.1.1.1", "refused"}, // its low 32 bits have that value
        {"4294967296.1.1.1", "0.1.1.1"},
        {"255.255.255.255", "255.255.255.255"},
        {"a.b.c.d", "0.0.0.0"},
        {"1x.2.3.4", "1.2.3.4"},
        {"-1.+2.3.4", "0.0.3.4"},
        {" 1.2.3.4", "0.2.3.4"},
        {"001.002.003.004.05", "1.2.3.4"},
        {"001.002.003.004.005", "refused"}, // 19 characters
    };
    auto* set_ip_addrs_str = host.symbol<int32_t (*)(const char*)>("ats_sa_set_ip_addrs_str");
    for (const auto& [address, expected] : table) {
        SCOPED_TRACE(address);
        int32_t result = 0;
        host.run([&, &address = address] { result = set_ip_addrs_str(address.c_str()); });
        if (expected == "refused") {
            EXPECT_EQ(result, -1);
            EXPECT_THAT(w.requests(), IsEmpty());
            EXPECT_THAT(host.log(), ElementsAre("ATS - can't parse ip addr " + address));
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_THAT(w.requests(),
                        ElementsAre("0 node1.1 DELETE node1.1", "0 node1.1 SET node1.1 " + expected + " node1"));
            EXPECT_THAT(host.log(), IsEmpty());
        }
    }
    host.run([&] { EXPECT_EQ(set_ip_addrs_str(nullptr), -1); });
    EXPECT_THAT(host.log(), IsEmpty());
}

TEST_F(text, gids_have_the_same_meaning_as_ever)
{
    const std::string too_long = "ERROR misc/ats_parsegidstr: The gid string is too long or too short";
    const std::string no_prefix = "ERROR misc/ats_parsegidstr: The gid string should start with 0x";
    const std::string no_digit = "ERROR misc/ats_parsegidstr: Invalid character found in gid address.";
    const std::map<std::string, std::string> table = {
        {"0x1", "0x00000000000000000000000000000001"},
        {"0x123", "0x00000000000000000000000000000123"},
        {"0x0A", "0x0000000000000000000000000000000A"},
        {"0xfe800000000000000011223344556677", "0xFE800000000000000011223344556677"},
        {"0xFE80000000000000AABBCCDDEEFF0099", "0xFE80000000000000AABBCCDDEEFF0099"},
        {"0xfe80000000000000aabbccddeeff009", "0x0FE80000000000000AABBCCDDEEFF009"},
        {"0x", too_long},
        {"0", too_long},
        {"0xfe8000000000000000112233445566778", too_long}, // 35 characters
        {"0X12", no_prefix},
        {"00x1", no_prefix},
        {"1x12", no_prefix},
        {"fe80", no_prefix},
        {"0x12g4", no_digit},
        {"0xg", no_digit},
        {"0x1:", no_digit},
        {"0x1@", no_digit},
        {"0x/1", no_digit},
        {"0x0`", no_digit},
    };
    for (const auto& [gid, expected] : table) {
        SCOPED_TRACE(gid);
        host.control("rarp " + gid);
        if (expected.starts_with("0x")) {
            EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 GET " + expected));
            EXPECT_THAT(host.log(), IsEmpty());
        } else {
            EXPECT_THAT(w.requests(), IsEmpty());
            EXPECT_THAT(host.log(), ElementsAre(expected, "Could not parse dgid address."));
        }
    }
}

TEST(parsers_of_the_program, refuse_a_text_with_a_nul)
{
    using namespace std::string_literals;
    EXPECT_FALSE(world::parse_ipv4("10.0.0.9\0x"s));
    EXPECT_FALSE(world::parse_gid("fe80::1\0x"s));
    EXPECT_FALSE(world::parse_gid("0x1\0"s));
}

} // namespace
