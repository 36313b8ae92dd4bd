#include "host/fabric/embedded/service-records.h"

#include <gtest/gtest.h>
#include <random>

#include "requests.h"

namespace
{

using namespace embedded;
using test::gid_number;
using test::record_t;

// The offset in the record and the size in bytes of component `bit`. Does not use the offsets of the tested code.
std::pair<size_t, size_t> place_of_component(int bit)
{
    if (bit >= SR_COMPONENT_SERVICE_DATA64) return {160 + 8 * (bit - SR_COMPONENT_SERVICE_DATA64), 8};
    if (bit >= SR_COMPONENT_SERVICE_DATA32) return {144 + 4 * (bit - SR_COMPONENT_SERVICE_DATA32), 4};
    if (bit >= SR_COMPONENT_SERVICE_DATA16) return {128 + 2 * (bit - SR_COMPONENT_SERVICE_DATA16), 2};
    if (bit >= SR_COMPONENT_SERVICE_DATA8) return {112 + (bit - SR_COMPONENT_SERVICE_DATA8), 1};
    constexpr std::pair<size_t, size_t> places[] = {{0, 8}, {8, 16}, {24, 2}, {26, 2}, {28, 4}, {32, 16}, {48, 64}};
    return places[bit];
}

// A slow and simple version of equal_in().
bool naively_equal(uint64_t mask, const record_t& a, const record_t& b)
{
    for (int bit = 0; bit < SR_COMPONENT_COUNT; ++bit) {
        if (!(mask >> bit & 1)) continue;
        const auto [offset, size] = place_of_component(bit);
        const auto* component = reinterpret_cast<const char*>(&a) + offset;
        if (memcmp(component, reinterpret_cast<const char*>(&b) + offset, size) != 0) return false;
    }
    return true;
}

TEST(service_records, every_byte_belongs_to_one_component)
{
    const record_t record = test::host_record(gid_number(1), 1);
    for (int bit = 0; bit < SR_COMPONENT_COUNT; ++bit) {
        const auto [offset, size] = place_of_component(bit);
        const uint64_t mask = uint64_t{1} << bit;
        for (size_t i = 0; i < size; ++i) {
            record_t other = record;
            reinterpret_cast<uint8_t*>(&other)[offset + i] ^= 0x10;
            EXPECT_FALSE(equal_in(mask, record, other)) << "component " << bit << " byte " << i;
            EXPECT_TRUE(equal_in(~mask, record, other)) << "component " << bit << " byte " << i;

            // The store finds the record only if the changed component is not selected.
            service_records store(8);
            store.set(record, 0);
            record_t result;
            EXPECT_EQ(store.get(test::mask_all, other, 0, result), matches::none);
            EXPECT_EQ(store.get(test::mask_all & ~mask, other, 0, result), matches::one);
        }
    }
    // Bits beyond the last component select nothing. Without a selected component, all records are equal.
    EXPECT_TRUE(equal_in(test::mask_all << SR_COMPONENT_COUNT, record, record_t{}));
}

// Draws records and masks at random. Each field has only a few possible values, so many records have the same key.
struct clashing_records {
    std::mt19937 dice{42};
    int draw(int below) { return static_cast<int>(dice() % static_cast<unsigned>(below)); }
    record_t next()
    {
        record_t record = test::host_record(gid_number(draw(6)), static_cast<uint8_t>(draw(4)),
                                            draw(2) ? 0xFFFF : 0x8001, draw(3) ? UINT32_MAX : 1 + dice() % 5);
        record.service_id = to_wire(records::service_id + static_cast<uint64_t>(draw(2)));
        record.service_data16[0] = static_cast<uint8_t>(draw(2));
        return record;
    }
    uint64_t next_mask()
    {
        constexpr uint64_t usual[] = {test::mask_gid_lookup, test::mask_address_lookup, test::mask_all, 0, 2, 4};
        const uint64_t mask = usual[draw(6)];
        return draw(2) ? mask : mask ^ uint64_t { 1 } << draw(SR_COMPONENT_COUNT);
    }
};

// A slow and simple version of the store. It has no index and searches all records.
struct naive_store {
    struct entry {
        record_t record;
        uint64_t expires_tick;
    };
    std::vector<entry> all;

    void advance(uint64_t now_ticks)
    {
        std::erase_if(all, [&](const entry& each) { return each.expires_tick <= now_ticks; });
        for (entry& each : all)
            if (each.expires_tick != UINT64_MAX)
                each.record.service_lease =
                    to_wire(static_cast<uint32_t>((each.expires_tick - now_ticks + 999) / 1000));
    }
    void set(const record_t& record, uint64_t now_ticks)
    {
        std::erase_if(all, [&](const entry& each) { return naively_equal(7, each.record, record); });
        const uint32_t lease = from_wire(record.service_lease);
        all.push_back({record, lease == UINT32_MAX ? UINT64_MAX : now_ticks + lease * 1000ull});
    }
    std::vector<record_t> select(uint64_t mask, const record_t& pattern) const
    {
        std::vector<record_t> selection;
        for (const entry& each : all)
            if (naively_equal(mask, each.record, pattern)) selection.push_back(each.record);
        return selection;
    }
};

TEST(service_records, an_index_gives_the_same_answers_as_a_search)
{
    clashing_records draw;
    service_records store(1000);
    naive_store naive;
    uint64_t now_ticks = 0;
    int counts[3] = {};
    for (int step = 0; step < 100'000; ++step) {
        now_ticks += static_cast<uint64_t>(draw.draw(300));
        naive.advance(now_ticks);
        const record_t record = draw.next();
        const int action = draw.draw(8);
        if (action < 3) {
            ASSERT_TRUE(store.set(record, now_ticks));
            naive.set(record, now_ticks);
            continue;
        }
        if (action == 3 && draw.draw(20) == 0) {
            const fabric::gid_bytes gid = std::to_array(record.service_gid.bytes);
            ASSERT_EQ(store.forget(gid, now_ticks), std::erase_if(naive.all, [&](const auto& each) {
                          return naively_equal(2, each.record, record);
                      }));
            continue;
        }
        const uint64_t mask = draw.next_mask();
        const std::vector<record_t> expected = naive.select(mask, record);
        const matches expected_count = static_cast<matches>(std::min<size_t>(expected.size(), 2));
        record_t result{};
        const matches count =
            action < 6 ? store.get(mask, record, now_ticks, result) : store.remove(mask, record, now_ticks, result);
        ASSERT_EQ(count, expected_count) << "step " << step << " mask " << std::hex << mask;
        ++counts[static_cast<int>(count)];
        if (count == matches::one) {
            ASSERT_TRUE(test::same(result, expected[0])) << "step " << step;
            if (action >= 6)
                std::erase_if(naive.all, [&](const auto& each) { return naively_equal(7, each.record, result); });
        }
        ASSERT_EQ(store.all(now_ticks).size(), naive.all.size()) << "step " << step;
    }
    for (const int times : counts)
        EXPECT_GT(times, 1000) << "no result, one result and many results must all come often";
}

} // namespace
