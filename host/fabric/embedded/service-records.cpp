#include "host/fabric/embedded/service-records.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>

#include "records/host-record.h"

namespace embedded
{

namespace
{

constexpr uint64_t ticks_per_second = 1000;
constexpr uint64_t never_expires = UINT64_MAX;

constexpr uint64_t gid_component = uint64_t{1} << SR_COMPONENT_SERVICE_GID;
constexpr uint64_t address_components = uint64_t{0xFFFF} << SR_COMPONENT_SERVICE_DATA8;

// The offset of each component in the record, and the end of the last one. There are no gaps.
constexpr auto component_offsets = [] {
    constexpr int sizes[][2] = { // number of components, and bytes of each
        {1, 8}, {1, 16}, {1, 2}, {1, 2}, {1, 4}, {1, 16}, {1, 64}, {16, 1}, {8, 2}, {4, 4}, {2, 8}};
    std::array<size_t, SR_COMPONENT_COUNT + 1> offsets{};
    size_t component = 0;
    for (const auto& [count, bytes] : sizes)
        for (int i = 0; i < count; ++i, ++component) offsets[component + 1] = offsets[component] + bytes;
    return offsets;
}();
static_assert(component_offsets[SR_COMPONENT_SERVICE_NAME] == offsetof(ib_service_record_v2_t, service_name));
static_assert(component_offsets[SR_COMPONENT_SERVICE_DATA16] == offsetof(ib_service_record_v2_t, service_data16));
static_assert(component_offsets[SR_COMPONENT_COUNT] == sizeof(ib_service_record_v2_t));

// A run of consecutive selected components. Its bytes are consecutive, too.
struct component_run {
    size_t offset = 0;
    size_t size = 0;         // 0 if the mask selects no component
    uint64_t later_mask = 0; // the mask of the components after this run
};

component_run first_run(uint64_t component_mask)
{
    component_mask &= defined_components;
    if (component_mask == 0) return {};
    const int begin = std::countr_zero(component_mask);
    const int end = begin + std::countr_one(component_mask >> begin);
    return {component_offsets[begin], component_offsets[end] - component_offsets[begin],
            component_mask & ~uint64_t{0} << end};
}

std::array<uint8_t, 16> bytes_of(const uint8_t (&field)[16])
{
    return std::to_array(field);
}

uint32_t remaining_lease(uint64_t expires_tick, uint64_t now_ticks)
{
    return static_cast<uint32_t>((expires_tick - now_ticks + ticks_per_second - 1) / ticks_per_second);
}

} // namespace

bool equal_in(uint64_t component_mask, const ib_service_record_v2_t& record, const ib_service_record_v2_t& pattern)
{
    const auto* left = reinterpret_cast<const uint8_t*>(&record);
    const auto* right = reinterpret_cast<const uint8_t*>(&pattern);
    for (component_run run = first_run(component_mask); run.size > 0; run = first_run(run.later_mask))
        if (memcmp(left + run.offset, right + run.offset, run.size) != 0) return false;
    return true;
}

ib_service_record_v2_t components_of(uint64_t component_mask, const ib_service_record_v2_t& record)
{
    ib_service_record_v2_t result{};
    auto* target = reinterpret_cast<uint8_t*>(&result);
    const auto* source = reinterpret_cast<const uint8_t*>(&record);
    for (component_run run = first_run(component_mask); run.size > 0; run = first_run(run.later_mask))
        memcpy(target + run.offset, source + run.offset, run.size);
    return result;
}

size_t service_records::hash::operator()(const index_key& key) const
{
    const auto halves = std::bit_cast<std::array<uint64_t, 2>>(key);
    return ((halves[0] * 31 ^ halves[1]) * 0x9E3779B97F4A7C15u) >> 16; // Fibonacci hashing
}

bool service_records::set(const ib_service_record_v2_t& record, uint64_t now_ticks)
{
    expire(now_ticks);
    constexpr uint64_t key =
        1 << SR_COMPONENT_SERVICE_ID | 1 << SR_COMPONENT_SERVICE_GID | 1 << SR_COMPONENT_SERVICE_P_KEY;
    if (const selection same = select(key, record, now_ticks); same.count != matches::none) erase(same.first);
    if (records_.size() >= limit_) return false;

    const uint32_t lease = from_wire(record.service_lease);
    const uint64_t expires = lease == records::infinite_lease ? never_expires : now_ticks + lease * ticks_per_second;
    next_expiry_tick_ = std::min(next_expiry_tick_, expires);
    const auto position = records_.emplace(bytes_of(record.service_gid.bytes), entry{record, expires});
    by_address_.emplace(bytes_of(record.service_data8), position);
    assert(by_address_.size() == records_.size());
    if (on_change) on_change(record, true);
    return true;
}

matches service_records::get(uint64_t component_mask, const ib_service_record_v2_t& pattern, uint64_t now_ticks,
                             ib_service_record_v2_t& record)
{
    const selection selection = select(component_mask, pattern, now_ticks);
    if (selection.count == matches::one) record = selection.first->second.record;
    return selection.count;
}

matches service_records::remove(uint64_t component_mask, const ib_service_record_v2_t& pattern, uint64_t now_ticks,
                                ib_service_record_v2_t& record)
{
    const selection selection = select(component_mask, pattern, now_ticks);
    if (selection.count == matches::one) {
        record = selection.first->second.record;
        erase(selection.first);
    }
    return selection.count;
}

service_records::selection service_records::select(uint64_t component_mask, const ib_service_record_v2_t& pattern,
                                                   uint64_t now_ticks)
{
    expire(now_ticks);
    selection selection;
    // Adds the record to the selection if it matches. Returns false if this is the second match: the search can then
    // stop.
    const auto add = [&](by_gid_map::iterator position) {
        entry& candidate = position->second;
        if (candidate.expires_tick != never_expires)
            candidate.record.service_lease = to_wire(remaining_lease(candidate.expires_tick, now_ticks));
        if (!equal_in(component_mask, candidate.record, pattern)) return true;
        if (selection.count != matches::none) {
            selection.count = matches::many;
            return false;
        }
        selection = {matches::one, position};
        return true;
    };

    if (component_mask & gid_component) {
        auto [position, end] = records_.equal_range(bytes_of(pattern.service_gid.bytes));
        while (position != end && add(position)) ++position;
    } else if ((component_mask & address_components) == address_components) {
        auto [position, end] = by_address_.equal_range(bytes_of(pattern.service_data8));
        while (position != end && add(position->second)) ++position;
    } else {
        auto position = records_.begin();
        while (position != records_.end() && add(position)) ++position;
    }
    return selection;
}

service_records::by_gid_map::iterator service_records::erase(by_gid_map::iterator position)
{
    auto [address, end] = by_address_.equal_range(bytes_of(position->second.record.service_data8));
    while (address != end && address->second != position) ++address;
    assert(address != end);
    by_address_.erase(address);
    const ib_service_record_v2_t record = position->second.record;
    const auto next = records_.erase(position);
    if (on_change) on_change(record, false);
    return next;
}

void service_records::expire(uint64_t now_ticks)
{
    if (now_ticks < next_expiry_tick_) return;
    next_expiry_tick_ = UINT64_MAX;
    for (auto position = records_.begin(); position != records_.end();) {
        if (position->second.expires_tick <= now_ticks) {
            position = erase(position);
        } else {
            next_expiry_tick_ = std::min(next_expiry_tick_, position->second.expires_tick);
            ++position;
        }
    }
}

size_t service_records::forget(const fabric::gid_bytes& gid, uint64_t now_ticks)
{
    expire(now_ticks);
    const size_t count = records_.count(gid);
    for (size_t i = 0; i < count; ++i) erase(records_.find(gid));
    return count;
}

size_t service_records::clear(uint64_t now_ticks)
{
    expire(now_ticks);
    const size_t count = records_.size();
    while (!records_.empty()) erase(records_.begin());
    next_expiry_tick_ = UINT64_MAX;
    return count;
}

std::vector<ib_service_record_v2_t> service_records::all(uint64_t now_ticks)
{
    expire(now_ticks);
    std::vector<ib_service_record_v2_t> list;
    list.reserve(records_.size());
    for (const auto& [gid, entry] : records_) {
        list.push_back(entry.record);
        if (entry.expires_tick != never_expires)
            list.back().service_lease = to_wire(remaining_lease(entry.expires_tick, now_ticks));
    }
    std::sort(list.begin(), list.end(), [](const ib_service_record_v2_t& a, const ib_service_record_v2_t& b) {
        if (const int order = memcmp(&a.service_gid, &b.service_gid, sizeof a.service_gid)) return order < 0;
        if (const int order = memcmp(&a.service_id, &b.service_id, sizeof a.service_id)) return order < 0;
        return from_wire(a.service_pkey) < from_wire(b.service_pkey);
    });
    return list;
}

} // namespace embedded
