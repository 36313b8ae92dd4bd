// The Subnet Administrator, a function from request to response (IBA 15.4): SubnAdmSet, SubnAdmGet and SubnAdmDelete of
// ServiceRecords. It answers with single datagrams. It has no RMPP, and therefore no SubnAdmGetTable. Class-specific
// codes (IBA 15.2.4) are the high byte of a status word. There is no lock: the caller guards it.
#pragma once

#include <functional>

#include "host/fabric/embedded/faults.h"
#include "host/fabric/embedded/service-records.h"

namespace embedded
{

class subnet_administrator
{
  public:
    // `is_known_gid` is true for the GIDs of the ports of the subnet.
    subnet_administrator(size_t record_limit, std::function<bool(const fabric::gid_bytes&)> is_known_gid);

    // Counts a request and turns it into its response, in place. False: it has no answer, because it is a response or a
    // datagram of another class.
    bool answer(fabric::mad_bytes& mad, uint64_t now_ticks, subnet_counts& counts);

    // The same, but answers `status` and does nothing else.
    bool refuse(fabric::mad_bytes& mad, uint16_t status, subnet_counts& counts);

    service_records records;

  private:
    // Each serves a request with `record` and returns the status word. If that is 0, it leaves in `record` the record
    // that it stored, found or deleted; otherwise it leaves `record` alone.
    uint16_t serve(const mad_hdr_t& header, uint64_t component_mask, ib_service_record_v2_t& record,
                   uint64_t now_ticks);
    uint16_t set(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);
    uint16_t remove(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks);

    std::function<bool(const fabric::gid_bytes&)> is_known_gid_;
};

} // namespace embedded
