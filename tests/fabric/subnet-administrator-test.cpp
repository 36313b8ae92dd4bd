#include "host/fabric/embedded/subnet-administrator.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "host/fabric/embedded/subnet-hca.h"
#include "requests.h"

namespace
{

using namespace embedded;
using test::record_t;
using test::request;

constexpr fabric::gid_bytes gid_a{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11};
constexpr fabric::gid_bytes gid_b{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 1};
constexpr fabric::gid_bytes gid_c{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 3, 0, 1};
constexpr fabric::gid_bytes gid_d{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 4, 0, 1};
constexpr fabric::gid_bytes gid_elsewhere{0xFE, 0xC0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 1};

// The ports of the subnet. The port with gid_c is not in the default partition. The link of the port with gid_d is
// down.
const port_record ports[] = {
    {.owner = nullptr, .number = 1, .assigned_lid = 2, .gid = gid_a, .p_keys = {0xFFFF, 0x0005}},
    {.owner = nullptr, .number = 1, .assigned_lid = 3, .gid = gid_b, .p_keys = {0x7FFF, 0x0005}},
    {.owner = nullptr, .number = 1, .assigned_lid = 4, .gid = gid_c, .p_keys = {0x0005}},
    {.owner = nullptr, .number = 1, .assigned_lid = 5, .gid = gid_d, .p_keys = {0xFFFF}},
};

port_directory directory()
{
    static std::vector<port_record> active_ports = [] {
        std::vector<port_record> list(std::begin(ports), std::end(ports));
        for (port_record& port : list) {
            port.lid = port.assigned_lid;
            port.state = port.gid == gid_d ? fabric::link_state::down : fabric::link_state::active;
        }
        return list;
    }();
    const auto find = [](const auto& is_it) -> const port_record* {
        const auto port = std::ranges::find_if(active_ports, is_it);
        return port != active_ports.end() ? &*port : nullptr;
    };
    return {
        .by_gid = [=](const fabric::gid_bytes& gid) { return find([&](const auto& port) { return port.gid == gid; }); },
        .by_lid = [=](uint16_t lid) { return find([&](const auto& port) { return port.lid == lid; }); }};
}

// A record that has only the fields of a lookup by GID.
record_t like_gid(const fabric::gid_bytes& gid)
{
    record_t like{};
    like.service_id = to_wire(records::service_id);
    like.service_gid = std::bit_cast<wire_gid_t>(gid);
    memcpy(like.service_name, records::service_name, sizeof records::service_name);
    return like;
}

sa_mad_v2_t with(sa_mad_v2_t mad, size_t byte, uint8_t value)
{
    reinterpret_cast<uint8_t*>(&mad)[byte] = value;
    return mad;
}

constexpr size_t base_version_byte = 0, class_version_byte = 2, attribute_byte = 17;

struct exchange {
    const char* name;
    std::vector<record_t> records; // in the store before the request
    sa_mad_v2_t request;
    uint16_t status; // of the response, in host order: the class-specific code is the high byte
    uint8_t method;  // of the response
    record_t answer; // the record in the response
    size_t rest;     // number of records in the store after the request
};

const record_t a1 = test::host_record(gid_a, 1), a2 = test::host_record(gid_a, 2), b1 = test::host_record(gid_b, 1);
const record_t a1_other_partition = test::host_record(gid_a, 1, 0x8001),
               elsewhere = test::host_record(gid_elsewhere, 1);
const record_t a1_no_p_key = test::host_record(gid_a, 1, 0), a1_no_lease = test::host_record(gid_a, 1, 0xFFFF, 0);

constexpr uint8_t reply = test::get_response, del_reply = test::delete_response;
constexpr uint8_t get = MAD_METHOD_GET, set = MAD_METHOD_SET, del = MAD_METHOD_DELETE;
constexpr uint64_t by_gid = test::mask_gid_lookup, all = test::mask_all;
constexpr uint16_t invalid = 0x200, no_records = 0x300, too_many = 0x400, invalid_gid = 0x500, insufficient = 0x600;

const exchange exchanges[] = {
    {"set_first", {}, request(set, all, a1), 0, reply, a1, 1},
    {"set_replaces", {a1}, request(set, all, a2), 0, reply, a2, 1},
    {"set_other_p_key_is_another_record", {a1}, request(set, all, a1_other_partition), 0, reply, a1_other_partition, 2},
    {"set_no_p_key", {a1}, request(set, all, a1_no_p_key), 0, reply, a1_no_p_key, 2},
    {"set_unselected_p_key_is_none", {}, request(set, all & ~uint64_t{4}, a1), 0, reply, a1_no_p_key, 1},
    {"set_unselected_lease_is_infinite", {}, request(set, all & ~uint64_t{0x10}, a1_no_lease), 0, reply, a1, 1},
    {"set_no_lease", {}, request(set, all, a1_no_lease), invalid, reply, a1_no_lease, 0},
    {"set_gid_of_another_subnet", {}, request(set, all, elsewhere), invalid_gid, reply, elsewhere, 0},
    {"set_no_gid", {}, request(set, all & ~uint64_t{2}, a1), insufficient, reply, a1, 0},
    {"set_full", {a1, a1_other_partition, a1_no_p_key}, request(set, all, b1), 0x100, reply, b1, 3},

    {"get_by_gid", {a1, b1}, request(get, by_gid, like_gid(gid_b)), 0, reply, b1, 2},
    {"get_none", {a1}, request(get, by_gid, like_gid(gid_b)), no_records, reply, like_gid(gid_b), 1},
    {"get_anything_of_two", {a1, b1}, request(get, 0, record_t{}), too_many, reply, record_t{}, 2},

    {"delete_by_gid", {a1, b1}, request(del, by_gid, like_gid(gid_a)), 0, del_reply, a1, 1},
    {"delete_none", {b1}, request(del, by_gid, like_gid({})), no_records, del_reply, like_gid({}), 1},
    {"delete_two", {a1, b1}, request(del, 1, a1), too_many, del_reply, a1, 2},
    {"delete_anything", {a1}, request(del, 0, a1), insufficient, del_reply, a1, 1},
    {"delete_undefined_components", {a1}, request(del, all << 37, a1), insufficient, del_reply, a1, 1},

    {"get_table", {a1}, request(MAD_METHOD_GET_TABLE, 0, a1), 0x08, 0x92, a1, 1},
    {"node_record", {a1}, with(request(get, by_gid, a1), attribute_byte, 0x11), 0x0C, reply, a1, 1},
    {"base_version", {a1}, with(request(del, by_gid, a1), base_version_byte, 2), 0x04, del_reply, a1, 1},
    {"class_version", {}, with(request(set, all, a1), class_version_byte, 1), 0x04, reply, a1, 0},
};

TEST(subnet_administrator, answers_each_request_with_the_right_status_and_record)
{
    for (const exchange& row : exchanges) {
        SCOPED_TRACE(row.name);
        subnet_administrator sa(3, directory());
        for (const record_t& record : row.records) EXPECT_TRUE(sa.records.set(record, 0));
        subnet_counts counts;

        fabric::mad_bytes mad = test::bytes_of(row.request);
        EXPECT_TRUE(sa.answer(mad, 0, counts));

        const auto response = std::bit_cast<sa_mad_v2_t>(mad);
        EXPECT_EQ(from_wire(response.hdr.u.ns.status.raw16), row.status);
        EXPECT_EQ(test::method_of(response), row.method);
        EXPECT_TRUE(test::same(test::record_in(response), row.answer));
        EXPECT_EQ(sa.records.all(0).size(), row.rest);
        // The rest of the header is the same as in the request.
        sa_mad_v2_t unchanged = row.request;
        unchanged.hdr.m = response.hdr.m;
        unchanged.hdr.u = response.hdr.u;
        EXPECT_EQ(memcmp(&response, &unchanged, offsetof(sa_mad_v2_t, payload)), 0);
    }
}

// A request for the path from the port with gid_a to the port with gid_b, and its answer. The full request selects all
// of `path_components` below.
struct path_exchange {
    const char* name;
    std::function<void(ib_path_record_wire_t&)> change; // changes the record of the full request
    uint64_t removed_components;                        // not selected in this request
    uint16_t status;                                    // of the answer
    uint16_t p_key;                                     // of the answer
};

constexpr uint64_t bit(path_record_component_t component)
{
    return uint64_t{1} << component;
}
constexpr uint64_t by_gids = bit(PR_COMPONENT_DGID) | bit(PR_COMPONENT_SGID);
constexpr uint64_t by_lids = bit(PR_COMPONENT_DLID) | bit(PR_COMPONENT_SLID);
constexpr uint64_t path_components = by_gids | by_lids | bit(PR_COMPONENT_NUMB_PATH) | bit(PR_COMPONENT_P_KEY) |
                                     bit(PR_COMPONENT_SL) | bit(PR_COMPONENT_MTU_SELECTOR) | bit(PR_COMPONENT_MTU);

const path_exchange path_exchanges[] = {
    {"all_components", [](auto&) {}, 0, 0, 0xFFFF},
    {"by_gids", [](auto& path) { path.dlid = to_wire(uint16_t{9}); }, by_lids, 0, 0xFFFF},
    {"by_lids", [](auto& path) { path.dgid = {}; }, by_gids, 0, 0xFFFF},
    {"ends_disagree", [](auto& path) { path.dlid = to_wire(uint16_t{4}); }, 0, no_records, 0},
    {"no_source", [](auto&) {}, bit(PR_COMPONENT_SGID) | bit(PR_COMPONENT_SLID), insufficient, 0},
    {"no_destination", [](auto&) {}, bit(PR_COMPONENT_DGID) | bit(PR_COMPONENT_DLID), insufficient, 0},
    {"unknown_gid", [](auto& path) { path.dgid = std::bit_cast<wire_gid_t>(gid_elsewhere); }, by_lids, invalid_gid, 0},
    {"port_is_down", [](auto& path) { path.dgid = std::bit_cast<wire_gid_t>(gid_d); }, by_lids, no_records, 0},
    {"limited_members_only", [](auto& path) { path.p_key = to_wire(uint16_t{5}); }, 0, no_records, 0},
    {"other_partition", [](auto& path) { path.dgid = std::bit_cast<wire_gid_t>(gid_c); }, by_lids, no_records, 0},
    {"no_path_wanted", [](auto& path) { path.reversible_numb_path = 0x80; }, 0, invalid, 0},
    {"larger_mtu", [](auto& path) { path.mtu = 4; }, 0, no_records, 0},
    {"other_sl", [](auto& path) { path.qos_class_sl = to_wire(uint16_t{1}); }, 0, no_records, 0},
};

TEST(subnet_administrator, answers_each_path_request_with_the_right_status_and_path)
{
    for (const path_exchange& row : path_exchanges) {
        SCOPED_TRACE(row.name);
        ib_path_record_wire_t path{};
        path.sgid = std::bit_cast<wire_gid_t>(gid_a);
        path.slid = to_wire(uint16_t{2});
        path.dgid = std::bit_cast<wire_gid_t>(gid_b);
        path.dlid = to_wire(uint16_t{3});
        path.reversible_numb_path = 0x81;
        path.p_key = to_wire(uint16_t{0xFFFF});
        path.mtu = 3; // more than 1024 bytes
        row.change(path);
        sa_mad_v2_t request =
            with(test::request(get, path_components & ~row.removed_components, {}), attribute_byte, 0x35);
        memcpy(request.payload, &path, sizeof path);

        subnet_administrator sa(1, directory());
        subnet_counts counts;
        fabric::mad_bytes mad = test::bytes_of(request);
        EXPECT_TRUE(sa.answer(mad, 0, counts));

        const auto response = std::bit_cast<sa_mad_v2_t>(mad);
        EXPECT_EQ(from_wire(response.hdr.u.ns.status.raw16), row.status);
        ib_path_record_wire_t answer;
        memcpy(&answer, response.payload, sizeof answer);
        if (row.status != 0) {
            EXPECT_EQ(memcmp(&answer, &path, sizeof path), 0);
            continue;
        }
        EXPECT_EQ(from_wire(answer.slid), 2);
        EXPECT_EQ(from_wire(answer.dlid), 3);
        EXPECT_EQ(std::to_array(answer.sgid.bytes), gid_a);
        EXPECT_EQ(std::to_array(answer.dgid.bytes), gid_b);
        EXPECT_EQ(from_wire(answer.p_key), row.p_key);
        EXPECT_EQ(answer.mtu, 0x84);
        EXPECT_EQ(answer.reversible_numb_path, 0x81);
    }
    sa_mad_v2_t request = with(test::request(set, path_components, {}), attribute_byte, 0x35);
    fabric::mad_bytes mad = test::bytes_of(request);
    subnet_administrator sa(1, directory());
    subnet_counts counts;
    EXPECT_TRUE(sa.answer(mad, 0, counts));
    EXPECT_EQ(from_wire(std::bit_cast<sa_mad_v2_t>(mad).hdr.u.ns.status.raw16), 0x0C);
}

} // namespace
