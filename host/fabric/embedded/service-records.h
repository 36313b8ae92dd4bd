// The ServiceRecords of a Subnet Administrator (IBA 15.2.5.14). The key of a record is its ServiceID, ServiceGID and
// ServiceP_Key. A request selects the records that equal its own record in every component of its mask (IBA 15.4.4). A
// selection by ServiceGID or by all of ServiceData8 uses an index; any other selection compares every record. There is
// no lock: the caller guards the records.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

enum class matches { none, one, many };

constexpr uint64_t defined_components = (uint64_t{1} << SR_COMPONENT_COUNT) - 1;

// Returns true if `record` equals `pattern` in every component that `component_mask` selects. Undefined bits of the
// mask select nothing.
bool equal_in(uint64_t component_mask, const ib_service_record_v2_t& record, const ib_service_record_v2_t& pattern);

// Returns a copy of the record in which all components outside of the mask are zero.
ib_service_record_v2_t components_of(uint64_t component_mask, const ib_service_record_v2_t& record);

class service_records
{
  public:
    explicit service_records(size_t limit) : limit_(limit) {}

    // Called after each record that is stored (`is_stored`) or removed, for any reason. May be null.
    std::function<void(const ib_service_record_v2_t& record, bool is_stored)> on_change;

    // Stores the record. An earlier record with the same key is removed. The lease of the new record, in seconds,
    // starts at `now_ticks`. Returns false, and stores nothing, if the limit is reached.
    bool set(const ib_service_record_v2_t& record, uint64_t now_ticks);

    // Counts the selected records. If there is exactly one, writes it to `record`, with the remaining lease in seconds.
    matches get(uint64_t component_mask, const ib_service_record_v2_t& pattern, uint64_t now_ticks,
                ib_service_record_v2_t& record);

    // Does the same as get(). If there is exactly one selected record, also removes it.
    matches remove(uint64_t component_mask, const ib_service_record_v2_t& pattern, uint64_t now_ticks,
                   ib_service_record_v2_t& record);

    // forget() removes every record of a GID, and clear() removes all records. Both return the number of removed
    // records.
    size_t forget(const fabric::gid_bytes& gid, uint64_t now_ticks);
    size_t clear(uint64_t now_ticks);

    size_t size() const { return records_.size(); } // may include expired records

    // All records with their remaining leases, ordered by GID, ServiceID and P_Key.
    std::vector<ib_service_record_v2_t> all(uint64_t now_ticks);

  private:
    using index_key = std::array<uint8_t, 16>;
    struct entry {
        ib_service_record_v2_t record;
        uint64_t expires_tick;
    };
    using by_gid_map = std::multimap<index_key, entry>;
    struct hash {
        size_t operator()(const index_key& key) const;
    };
    // The key is all of ServiceData8, which holds the address. The iterators stay valid while other records are
    // inserted into or removed from the map by GID.
    using by_address_map = std::unordered_multimap<index_key, by_gid_map::iterator, hash>;

    struct selection {
        matches count = matches::none;
        by_gid_map::iterator first;
    };
    selection select(uint64_t component_mask, const ib_service_record_v2_t& pattern, uint64_t now_ticks);
    by_gid_map::iterator erase(by_gid_map::iterator position);
    void expire(uint64_t now_ticks);

    const size_t limit_;
    by_gid_map records_;
    by_address_map by_address_;
    uint64_t next_expiry_tick_ = UINT64_MAX;
};

} // namespace embedded
