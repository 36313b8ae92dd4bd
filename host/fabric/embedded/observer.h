// Sees all events in an embedded subnet: each datagram from its sender to its end, each change of a port and each
// change of the SA's records. A recording of a run is made from these calls.
#pragma once

#include <cstdint>

#include "host/fabric/embedded/delivery-queue.h"
#include "host/fabric/embedded/subnet-views.h"
#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

// A datagram in the calls of an observer. `number` is the same in all calls about one datagram and its duplicate.
struct datagram_sight {
    uint64_t number;
    const fabric::mad_bytes& mad;
    const datagram_faults& faults;
};

// The caller holds the lock of the subnet. The calls must not call the subnet, and must not sleep.
class observer
{
  public:
    // A datagram has left its sender; a null sender means the SA. Exactly one arrived() or lost() follows for it and
    // for each of its duplicates, unless the run ends first.
    virtual void sent(uint64_t now_ticks, const datagram_sight& datagram, const port_view* sender,
                      uint16_t destination_lid) = 0;
    virtual void arrived(uint64_t now_ticks, const datagram_sight& datagram, const port_view* receiver) = 0;

    // With `has_reached_end`, the receiver has dropped it; otherwise it was lost on the way.
    virtual void lost(uint64_t now_ticks, const datagram_sight& datagram, const char* reason, bool has_reached_end) = 0;

    // The fabric has not accepted a send.
    virtual void refused(uint64_t now_ticks, const fabric::mad_bytes& mad, const port_view& sender) = 0;

    virtual void port_changed(uint64_t now_ticks, const port_view& port) = 0;
    virtual void sm_moved(uint64_t now_ticks, uint16_t lid) = 0;
    virtual void record_stored(uint64_t now_ticks, const ib_service_record_v2_t& record) = 0;
    virtual void record_removed(uint64_t now_ticks, const ib_service_record_v2_t& record) = 0;

  protected:
    ~observer() = default;
};

} // namespace embedded
