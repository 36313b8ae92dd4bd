#include "host/fabric/embedded/service-records.h"

#include <algorithm>
#include <bit>
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

// Where each component begins in the record, and where the last one ends: they follow each other without gaps.
constexpr auto component_offsets = [] {
    constexpr int sizes[][2] = { // how many, of how many bytes each
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

// A run of selected components, which is one stretch of the record, and the components selected after it.
struct stretch {
    size_t offset = 0;
    size_t size = 0; // 0: nothing is selected any more
    uint64_t rest = 0;
};

stretch first_stretch(uint64_t component_mask)
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

bool equal_in(uint64_t component_mask, const ib_service_record_v2_t& record, const ib_service_record_v2_t& like)
{
    const auto* left = reinterpret_cast<const uint8_t*>(&record);
    const auto* right = reinterpret_cast<const uint8_t*>(&like);
    for (stretch at = first_stretch(component_mask); at.size > 0; at = first_stretch(at.rest))
        if (memcmp(left + at.offset, right + at.offset, at.size) != 0) return false;
    return true;
}

ib_service_record_v2_t components_of(uint64_t component_mask, const ib_service_record_v2_t& record)
{
    ib_service_record_v2_t selected{};
    auto* to = reinterpret_cast<uint8_t*>(&selected);
    const auto* from = reinterpret_cast<const uint8_t*>(&record);
    for (stretch at = first_stretch(component_mask); at.size > 0; at = first_stretch(at.rest))
        memcpy(to + at.offset, from + at.offset, at.size);
    return selected;
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
    const auto at = records_.emplace(bytes_of(record.service_gid.bytes), entry{record, expires});
    by_address_.emplace(bytes_of(record.service_data8), at);
    return true;
}

matches service_records::get(uint64_t component_mask, const ib_service_record_v2_t& like, uint64_t now_ticks,
                             ib_service_record_v2_t& found)
{
    const selection selected = select(component_mask, like, now_ticks);
    if (selected.count == matches::one) found = selected.first->second.record;
    return selected.count;
}

matches service_records::remove(uint64_t component_mask, const ib_service_record_v2_t& like, uint64_t now_ticks,
                                ib_service_record_v2_t& removed)
{
    const selection selected = select(component_mask, like, now_ticks);
    if (selected.count == matches::one) {
        removed = selected.first->second.record;
        erase(selected.first);
    }
    return selected.count;
}

service_records::selection service_records::select(uint64_t component_mask, const ib_service_record_v2_t& like,
                                                   uint64_t now_ticks)
{
    expire(now_ticks);
    selection selected;
    auto selects_more = [&](by_gid_map::iterator at) {
        entry& candidate = at->second;
        if (candidate.expires_tick != never_expires)
            candidate.record.service_lease = to_wire(remaining_lease(candidate.expires_tick, now_ticks));
        if (!equal_in(component_mask, candidate.record, like)) return true;
        if (selected.count != matches::none) {
            selected.count = matches::many;
            return false;
        }
        selected = {matches::one, at};
        return true;
    };

    if (component_mask & gid_component) {
        auto [at, end] = records_.equal_range(bytes_of(like.service_gid.bytes));
        while (at != end && selects_more(at)) ++at;
    } else if ((component_mask & address_components) == address_components) {
        auto [at, end] = by_address_.equal_range(bytes_of(like.service_data8));
        while (at != end && selects_more(at->second)) ++at;
    } else {
        auto at = records_.begin();
        while (at != records_.end() && selects_more(at)) ++at;
    }
    return selected;
}

service_records::by_gid_map::iterator service_records::erase(by_gid_map::iterator at)
{
    auto [address, end] = by_address_.equal_range(bytes_of(at->second.record.service_data8));
    while (address->second != at) ++address;
    by_address_.erase(address);
    return records_.erase(at);
}

void service_records::expire(uint64_t now_ticks)
{
    if (now_ticks < next_expiry_tick_) return;
    next_expiry_tick_ = UINT64_MAX;
    for (auto at = records_.begin(); at != records_.end();) {
        if (at->second.expires_tick <= now_ticks) {
            at = erase(at);
        } else {
            next_expiry_tick_ = std::min(next_expiry_tick_, at->second.expires_tick);
            ++at;
        }
    }
}

size_t service_records::forget(const fabric::gid_bytes& gid, uint64_t now_ticks)
{
    expire(now_ticks);
    const size_t before = records_.size();
    while (true) {
        const auto at = records_.find(gid);
        if (at == records_.end()) return before - records_.size();
        erase(at);
    }
}

size_t service_records::clear(uint64_t now_ticks)
{
    expire(now_ticks);
    const size_t cleared = records_.size();
    by_address_.clear();
    records_.clear();
    next_expiry_tick_ = UINT64_MAX;
    return cleared;
}

std::vector<ib_service_record_v2_t> service_records::all(uint64_t now_ticks)
{
    expire(now_ticks);
    std::vector<ib_service_record_v2_t> list;
    list.reserve(records_.size());
    for (const auto& [gid, held] : records_) {
        list.push_back(held.record);
        if (held.expires_tick != never_expires)
            list.back().service_lease = to_wire(remaining_lease(held.expires_tick, now_ticks));
    }
    std::sort(list.begin(), list.end(), [](const ib_service_record_v2_t& a, const ib_service_record_v2_t& b) {
        if (const int order = memcmp(&a.service_gid, &b.service_gid, sizeof a.service_gid)) return order < 0;
        if (const int order = memcmp(&a.service_id, &b.service_id, sizeof a.service_id)) return order < 0;
        return from_wire(a.service_pkey) < from_wire(b.service_pkey);
    });
    return list;
}

} // namespace embedded
