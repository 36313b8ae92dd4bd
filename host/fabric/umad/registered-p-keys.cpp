#include "host/fabric/umad/registered-p-keys.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace umad
{

namespace
{

// What it takes to keep a host from remembering without end, should its GIDs never stop changing.
constexpr size_t most_records = 256;

bool is_service_record(const mad_hdr_t& header)
{
    return header.mgt_class == MAD_CLASS_SUBN_ADM && !header.m.r &&
           from_wire(std::bit_cast<be16_t>(header.attrib_id)) == SA_ATTR_SERVICE_RECORD;
}

} // namespace

// Automatic does not wait until an SA has refused a Delete without a P_Key: the last Delete of a host that stops has
// no second try, and an SA that honours the component mask does not look at the P_Key, which the mask leaves out. It
// goes no further than records that were Set in this run, because a host knows the P_Key of those only.
bool own_records::leaving(sa_mad_v2_t& mad, const fabric::port_attributes& port)
{
    if (setting_ == delete_p_key::off || !is_service_record(mad.hdr)) return false;
    ib_service_record_v2_t record;
    std::memcpy(&record, mad.payload, sizeof record);
    const key named{from_wire(record.service_id), std::to_array(record.service_gid.bytes)};

    const std::lock_guard lock(mutex_);
    const auto known = p_keys_.find(named);
    if (mad.hdr.m.method == MAD_METHOD_SET) {
        if (known != p_keys_.end() || p_keys_.size() < most_records) p_keys_[named] = from_wire(record.service_pkey);
        return false;
    }
    if (mad.hdr.m.method != MAD_METHOD_DELETE || from_wire(record.service_pkey) != 0) return false;

    uint16_t p_key = 0;
    if (known != p_keys_.end())
        p_key = known->second;
    else if (setting_ == delete_p_key::on && !port.p_keys.empty() && std::ranges::count(port.gids, named.gid) > 0)
        p_key = port.p_keys.front();
    if (p_key == 0) return false;
    record.service_pkey = to_wire(p_key);
    std::memcpy(mad.payload, &record, sizeof record);
    return true;
}

} // namespace umad
