// Compares the requests that the module sends with the expected bytes, and their destinations with the expected ones.
// Only the TransactionIDs have no fixed value. All hosts of the service must use the same layout. If one host has a
// byte at another place, lookups between this host and the others can fail.
#include <set>

#include "tests/ats/ats-world.h"

namespace
{

using bytes = std::vector<uint8_t>;

struct field {
    size_t offset;
    bytes value;
};

bytes text(const std::string& characters)
{
    return {characters.begin(), characters.end()};
}

// All 256 bytes of a request: the fields that every request has and the given ones. All other bytes are zero.
fabric::mad_bytes request_with(const std::vector<field>& fields)
{
    const std::vector<field> common = {
        {0, {1, 3, 2}},                                   // BaseVersion, MgmtClass, ClassVersion
        {16, {0x00, 0x31}},                               // AttributeID: ServiceRecord
        {32, {0, 0, 0, 0xF0}},                            // payload length
        {56, {0x10, 0, 0x0C, 0xE1, 0, 0x41, 0x54, 0x53}}, // ServiceID
        {104, text("DAPL Address Translation Service")},  // ServiceName
    };
    fabric::mad_bytes mad{};
    for (const auto* each : {&common, &fields})
        for (const field& part : *each) std::ranges::copy(part.value, mad.begin() + part.offset);
    return mad;
}

const bytes gid = {0xFE, 0x80, 1, 2, 3, 4, 5, 6, 2, 0, 0, 0, 0, 1, 0, 1};
const bytes mask_by_gid = {0, 0, 0, 0, 0, 0, 0, 0x43};
const std::string name = "abcdefghijklmnopqrstuvwxyzABCD"; // the longest name that a record can hold

const fabric::mad_bytes first_delete = request_with({{3, {0x15}}, {48, mask_by_gid}});
const fabric::mad_bytes later_delete = request_with({{3, {0x15}}, {48, mask_by_gid}, {64, gid}});
const fabric::mad_bytes set = request_with({{3, {0x02}},
                                            {48, bytes(8, 0xFF)},
                                            {64, gid},
                                            {80, {0x81, 0x23}},             // P_Key
                                            {84, {0xFF, 0xFF, 0xFF, 0xFF}}, // lease
                                            {180, {10, 1, 2, 3}},           // address
                                            {184, {0x5C, 0x27}},            // marker
                                            {200, text(name)}});
const fabric::mad_bytes get_by_address =
    request_with({{3, {0x01}}, {48, {0, 0, 0, 0, 0, 0x7F, 0xFF, 0xC1}}, {180, {192, 168, 0, 5}}});
const fabric::mad_bytes get_by_gid = request_with({{3, {0x01}}, {48, mask_by_gid}, {64, gid}});

TEST(wire, no_byte_of_a_request_or_of_its_destination_changes)
{
    ats_world w({}, {.gid_prefix = 0xFE80010203040506, .sm_lid = 77, .sm_sl = 5, .p_keys = {0x8123}});
    ats_host& host = w.add({.name = name + "beyond", .address = "10.1.2.3"}).load();
    reverse_lookup lookup;
    host.link_up(1);
    host.resolve("192.168.0.5");
    host.reverse(host.gid(1), lookup);
    host.control("set_ip_addrs 10.1.2.3");

    const std::vector<wire_request> requests = w.raw_requests();
    const std::vector<fabric::mad_bytes> expected = {first_delete, set, get_by_address, get_by_gid, later_delete, set};
    ASSERT_EQ(requests.size(), expected.size());
    std::set<fabric::mad_bytes> transactions{fabric::mad_bytes{}};
    for (size_t i = 0; i < requests.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "request " << i);
        fabric::mad_bytes mad = requests[i].mad, transaction{};
        std::copy_n(mad.begin() + 8, 8, transaction.begin());
        EXPECT_TRUE(transactions.insert(transaction).second) << "a TransactionID is zero, or used twice";
        std::fill_n(mad.begin() + 8, 8, 0);
        EXPECT_EQ(mad, expected[i]);

        const fabric::address& destination = requests[i].destination;
        EXPECT_EQ(destination.lid, 77);
        EXPECT_EQ(destination.sl, 5);
        EXPECT_EQ(destination.qpn, 1u);
        EXPECT_EQ(destination.q_key, 0x80010000u);
        EXPECT_EQ(destination.path_bits + destination.static_rate + destination.p_key_index, 0);
    }
}

} // namespace
