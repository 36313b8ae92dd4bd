#include "host/fabric/embedded/subnet-administrator.h"

#include <gtest/gtest.h>

#include "requests.h"

namespace
{

using namespace embedded;
using test::record_t;
using test::request;

constexpr fabric::gid_bytes gid_a{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11};
constexpr fabric::gid_bytes gid_b{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 1};
constexpr fabric::gid_bytes gid_elsewhere{0xFE, 0xC0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 1};

bool is_known_gid(const fabric::gid_bytes& gid)
{
    return gid == gid_a || gid == gid_b;
}

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
    std::vector<record_t> records;
    sa_mad_v2_t request;
    uint16_t status; // as a number: the class-specific code is the high byte
    uint8_t method;
    record_t answer; // the record in the response
    size_t rest;     // records stored afterwards
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
    {"path_record", {a1}, with(request(get, by_gid, a1), attribute_byte, 0x35), 0x0C, reply, a1, 1},
    {"base_version", {a1}, with(request(del, by_gid, a1), base_version_byte, 2), 0x04, del_reply, a1, 1},
    {"class_version", {}, with(request(set, all, a1), class_version_byte, 1), 0x04, reply, a1, 0},
};

TEST(subnet_administrator, answers)
{
    for (const exchange& row : exchanges) {
        SCOPED_TRACE(row.name);
        subnet_administrator sa(3, is_known_gid);
        for (const record_t& record : row.records) EXPECT_TRUE(sa.records.set(record, 0));
        subnet_counts counts;

        fabric::mad_bytes mad = test::bytes_of(row.request);
        EXPECT_TRUE(sa.answer(mad, 0, counts));

        const auto response = std::bit_cast<sa_mad_v2_t>(mad);
        EXPECT_EQ(from_wire(response.hdr.u.ns.status.raw16), row.status);
        EXPECT_EQ(test::method_of(response), row.method);
        EXPECT_TRUE(test::same(test::record_in(response), row.answer));
        EXPECT_EQ(sa.records.all(0).size(), row.rest);
        // The rest of the header is that of the request.
        sa_mad_v2_t unchanged = row.request;
        unchanged.hdr.m = response.hdr.m;
        unchanged.hdr.u = response.hdr.u;
        EXPECT_EQ(memcmp(&response, &unchanged, offsetof(sa_mad_v2_t, payload)), 0);
    }
}

} // namespace
