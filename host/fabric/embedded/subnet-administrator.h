// The Subnet Administrator (IBA 15.4). It replaces each request with its response. It serves SubnAdmSet, SubnAdmGet and
// SubnAdmDelete of ServiceRecords, and SubnAdmGet of PathRecords. Every answer is a single datagram: there is no RMPP,
// and therefore no SubnAdmGetTable. The high byte of a status word is the class-specific code (IBA 15.2.4). There is no
// lock: the caller guards the SA.
#pragma once

#include "host/fabric/embedded/faults.h"
#include "host/fabric/embedded/path-records.h"
#include "host/fabric/embedded/service-records.h"

namespace embedded
{

class subnet_administrator
{
  public:
    // `ports` finds the ports of the subnet by GID and by LID; `paths` are the attributes of all paths in the subnet.
    subnet_administrator(size_t record_limit, port_directory ports, const path_attributes& paths = {});

    // Counts a request, serves it, and replaces it with its response. Returns false, and does nothing, if the MAD is a
    // response or belongs to another class.
    bool answer(fabric::mad_bytes& mad, uint64_t now_ticks, subnet_counts& counts);

    // Counts a request and replaces it with a response that has this status word. Does not serve the request. Returns
    // false, and does nothing, in the same cases as answer().
    bool refuse(fabric::mad_bytes& mad, uint16_t status, subnet_counts& counts);

    service_records records;

  private:
    // Each of these functions serves a request and returns the status word. If the status is 0, the record in the
    // request becomes the record that was stored, found or deleted. Otherwise the record does not change.
    uint16_t serve(sa_mad_v2_t& mad, uint64_t now_ticks);
    uint16_t serve_service_record(uint8_t method, uint64_t component_mask, ib_service_record_v2_t& record,
                                  uint64_t now_ticks);
    uint16_t serve_path_record(uint8_t method, uint64_t component_mask, ib_path_record_wire_t& record) const;
    uint16_t set(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);
    uint16_t remove(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);

    const port_directory ports_;
    const path_attributes path_attributes_;
};

} // namespace embedded
