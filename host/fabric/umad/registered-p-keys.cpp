#include "host/fabric/umad/registered-p-keys.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace umad
{

namespace
{

constexpr size_t most_records = 256; // limits the memory if a host's GIDs change again and again

bool is_service_record(const mad_hdr_t& header)
{
    return header.mgt_class == MAD_CLASS_SUBN_ADM && !header.m.r &&
           from_wire(std::bit_cast<be16_t>(header.attrib_id)) == SA_ATTR_SERVICE_RECORD;
}

} // namespace

// With `automatic`, even the first try of a Delete gets a P_Key, because a host that stops does not repeat its last
// Delete. The mask of the Delete omits the P_Key, so an SA that honours the mask ignores the P_Key. `automatic` can
// help only for records that were Set in this run, because only their P_Keys are known.
bool registered_p_keys::complete(sa_mad_v2_t& mad, const fabric::port_attributes& port)
{
    if (setting_ == delete_p_key::off || !is_service_record(mad.hdr)) return false;
    ib_service_record_v2_t record;
    std::memcpy(&record, mad.payload, sizeof record);
    const key identifier{from_wire(record.service_id), std::to_array(record.service_gid.bytes)};

    const std::lock_guard lock(mutex_);
    const auto entry = p_keys_.find(identifier);
    const bool is_registered = entry != p_keys_.end();
    if (mad.hdr.m.method == MAD_METHOD_SET) {
        if (is_registered || p_keys_.size() < most_records) p_keys_[identifier] = from_wire(record.service_pkey);
        return false;
    }
    if (mad.hdr.m.method != MAD_METHOD_DELETE || from_wire(record.service_pkey) != 0) return false;

    uint16_t p_key = 0;
    if (is_registered)
        p_key = entry->second;
    else if (setting_ == delete_p_key::on && !port.p_keys.empty() && std::ranges::count(port.gids, identifier.gid) > 0)
        p_key = port.p_keys.front();
    if (p_key == 0) return false;
    record.service_pkey = to_wire(p_key);
    std::memcpy(mad.payload, &record, sizeof record);
    return true;
}

} // namespace umad
