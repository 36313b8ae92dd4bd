// Fills records of type ibat_arp_data_t: for IBAT's requests to the resolver, and for IBAT's answers.
#pragma once

#include "ibat.h"

namespace ibat
{

// Returns a record with only an address (network order).
inline ibat_arp_data_t address_record(uint32_t address)
{
    ibat_arp_data_t record{};
    record.mask = IBAT_MASK_DST_IP;
    record.dst_ip = address;
    return record;
}

// Writes a mapping of `address` to `gid` into `*record`, and keeps the other fields of the record. `is_own` means that
// it is the host's own mapping. If `local_port_num` is 0, the port is unknown.
inline void fill_record(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num, bool is_own,
                        ibat_arp_data_t* record)
{
    record->mask = IBAT_MASK_DST_IP | IBAT_MASK_GID;
    record->dst_ip = address;
    record->gid = gid;
    record->local_port_num = local_port_num;
    if (local_port_num != 0) record->mask |= IBAT_MASK_LOCAL_PORT_NUM;
    if (is_own) record->mask |= IBAT_MASK_STATIC;
}

} // namespace ibat
