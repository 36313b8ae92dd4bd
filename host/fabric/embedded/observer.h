// Sees what happens in an embedded subnet: each datagram from its sender to its arrival or loss, each change of a link,
// each move of the SM, and each change of the SA's records. recording/recorder.h writes the recording of a run from
// these calls.
#pragma once

#include <cstdint>

#include "host/fabric/embedded/delivery-queue.h"
#include "host/fabric/embedded/subnet-views.h"
#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace embedded
{

// A datagram, as an observer sees it. `number` is the same in all calls about a datagram and its duplicate. The
// references are valid only during the call.
struct observed_datagram {
    uint64_t number;
    const fabric::mad_bytes& mad;
    const datagram_faults& faults;
};

// The subnet holds its lock while it makes these calls. An observer must not call the subnet, and must not sleep.
class observer
{
  public:
    // A datagram leaves its sender. If the run does not end before, one arrived() or lost() follows for the datagram,
    // and one for each of its duplicates. A null sender or receiver means the SA.
    virtual void sent(uint64_t now_ticks, const observed_datagram& datagram, const port_view* sender,
                      uint16_t destination_lid) = 0;
    virtual void arrived(uint64_t now_ticks, const observed_datagram& datagram, const port_view* receiver) = 0;

    // A datagram was dropped: with `has_reached_end` at the end of its way, otherwise earlier. `reason` is a text for
    // people.
    virtual void lost(uint64_t now_ticks, const observed_datagram& datagram, const char* reason,
                      bool has_reached_end) = 0;

    // The fabric has not accepted a datagram from a host.
    virtual void refused(uint64_t now_ticks, const fabric::mad_bytes& mad, const port_view& sender) = 0;

    virtual void port_changed(uint64_t now_ticks, const port_view& port) = 0;
    virtual void sm_moved(uint64_t now_ticks, uint16_t lid) = 0;
    virtual void record_stored(uint64_t now_ticks, const ib_service_record_v2_t& record) = 0;
    virtual void record_removed(uint64_t now_ticks, const ib_service_record_v2_t& record) = 0;

  protected:
    ~observer() = default;
};

} // namespace embedded
