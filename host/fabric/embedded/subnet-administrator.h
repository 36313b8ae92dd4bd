// The Subnet Administrator as a function from request to response (IBA 15.4): SubnAdmSet, SubnAdmGet and
// SubnAdmDelete of ServiceRecords. It speaks single datagrams only, no RMPP, and so no SubnAdmGetTable.
// Class-specific codes (IBA 15.2.4) stand in the high byte of a status word. The caller guards it.
#pragma once

#include <functional>

#include "host/fabric/embedded/faults.h"
#include "host/fabric/embedded/service-records.h"

namespace embedded
{

class subnet_administrator
{
  public:
    // `is_known_gid` says whether a GID belongs to a port of the subnet.
    subnet_administrator(size_t record_limit, std::function<bool(const fabric::gid_bytes&)> is_known_gid);

    // Turns a request into its response, in place, and counts it. False: there is nothing to answer, as to a
    // response or to another class's datagram.
    bool answer(fabric::mad_bytes& mad, uint64_t now_ticks, traffic_counts& counts);

    // The same without doing what was asked: answers `status`.
    bool refuse(fabric::mad_bytes& mad, uint16_t status, traffic_counts& counts);

    service_records records;

  private:
    // Each does what is asked with `record`, leaves in it the record set, found or deleted, and returns the status
    // word; `record` is as it was when that is not 0.
    uint16_t serve(const mad_hdr_t& header, uint64_t component_mask, ib_service_record_v2_t& record,
                   uint64_t now_ticks);
    uint16_t set(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);
    uint16_t remove(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);

    std::function<bool(const fabric::gid_bytes&)> is_known_gid_;
};

} // namespace embedded
