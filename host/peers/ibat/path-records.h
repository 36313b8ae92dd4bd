// Fills records of type ibat_arp_data_t with IBAT's answers about paths.
#pragma once

#include "ibat.h"

namespace ibat
{

// Returns a record with only a GID.
inline ibat_arp_data_t gid_record(const kq_gid_t& gid)
{
    ibat_arp_data_t record{};
    record.mask = IBAT_MASK_GID;
    record.gid = gid;
    return record;
}

// Writes a path to `gid` into `*record`, and keeps the other fields of the record. `gid` may be a field of the record.
inline void fill_path_record(const kq_gid_t& gid, const ib_path_record_v2_t& path, uint32_t port_number,
                             ibat_arp_data_t* record)
{
    record->gid = gid;
    record->mask |= IBAT_MASK_GID | IBAT_MASK_LOCAL_PORT_NUM;
    record->local_port_num = port_number;
    record->paths[0] = path;
    record->primary_path = &record->paths[0];
    record->secondary_path = nullptr;
    record->paths_count = 1;
}

} // namespace ibat
