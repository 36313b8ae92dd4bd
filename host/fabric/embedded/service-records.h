// The ServiceRecords of a Subnet Administrator (IBA 15.2.5.14). A record is kept under its ServiceID, ServiceGID and
// ServiceP_Key. Records are selected by example: those equal to it in every component of the mask (IBA 15.4.4).
// Selections that name the ServiceGID or all of ServiceData8 go by an index; others look at every record.
// The caller guards it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <vector>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

enum class matches { none, one, many };

constexpr uint64_t defined_components = (uint64_t{1} << SR_COMPONENT_COUNT) - 1;

// Whether `record` equals `like` in every component that `component_mask` selects; undefined bits select nothing.
bool equal_in(uint64_t component_mask, const ib_service_record_v2_t& record, const ib_service_record_v2_t& like);

// The record with every component that is not selected zero.
ib_service_record_v2_t components_of(uint64_t component_mask, const ib_service_record_v2_t& record);

class service_records
{
  public:
    explicit service_records(size_t limit) : limit_(limit) {}

    // Stores the record, in place of one with the same key. Its lease, in seconds, runs from `now_ticks`. False:
    // there are as many as the limit allows.
    bool set(const ib_service_record_v2_t& record, uint64_t now_ticks);

    // Looks for the one record selected. `found` is written for `one` only; its lease is what remains of it.
    matches get(uint64_t component_mask, const ib_service_record_v2_t& like, uint64_t now_ticks,
                ib_service_record_v2_t& found);

    // The same, and removes the record when it is the only one.
    matches remove(uint64_t component_mask, const ib_service_record_v2_t& like, uint64_t now_ticks,
                   ib_service_record_v2_t& removed);

    // Removes every record of a GID, or all records, and says how many.
    size_t forget(const fabric::gid_bytes& gid, uint64_t now_ticks);
    size_t clear(uint64_t now_ticks);

    // All of them, ordered by GID, ServiceID and P_Key.
    std::vector<ib_service_record_v2_t> all(uint64_t now_ticks);

  private:
    using index_key = std::array<uint8_t, 16>;
    struct entry {
        ib_service_record_v2_t record;
        uint64_t expires_tick;
    };
    using by_gid_map = std::multimap<index_key, entry>;
    using by_address_map = std::multimap<index_key, by_gid_map::iterator>; // an insertion leaves iterators valid

    struct selection {
        matches count = matches::none;
        by_gid_map::iterator first;
    };
    selection select(uint64_t component_mask, const ib_service_record_v2_t& like, uint64_t now_ticks);
    by_gid_map::iterator erase(by_gid_map::iterator at);
    void expire(uint64_t now_ticks);

    const size_t limit_;
    by_gid_map records_;
    by_address_map by_address_; // by the whole of ServiceData8
    uint64_t next_expiry_tick_ = UINT64_MAX;
};

} // namespace embedded
