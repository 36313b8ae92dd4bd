// The speed of an SA: its time for each kind of request, which may grow with its table, and the number of requests that
// may wait. Without limits, an embedded SA answers at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "host/fabric/fabric.h"

namespace embedded
{

// The processor time of a request: a fixed part, and a part for every record in the table.
struct service_time {
    double fixed_us = 0;
    double record_us = 0;
};

struct sa_limits {
    service_time set = {};
    service_time remove = {};
    service_time get_by_gid = {};
    service_time get_by_address = {}; // also any other Get of ServiceRecords
    service_time get_path = {};
    service_time other = {};
    size_t queue_capacity = SIZE_MAX; // waiting requests, with the one that is served; more are dropped
};

struct sa_queue_counts {
    size_t longest = 0;   // the largest number of requests that waited at the same time
    uint64_t dropped = 0; // because the queue was full
};

// The requests that wait, served one after another. Only keeps the times at which they end. There is no lock: the
// caller guards it.
class sa_queue
{
  public:
    explicit sa_queue(const sa_limits& limits) : limits_(limits) {}

    // Accepts a request that arrives now, for a table with so many records. Returns the tick at which it is served, or
    // exec::never if the queue is full.
    uint64_t admit(const fabric::mad_bytes& mad, size_t records, uint64_t now_ticks);

    const sa_queue_counts& counts() const { return counts_; }

  private:
    double microseconds_of(const fabric::mad_bytes& mad, size_t records) const;

    const sa_limits limits_;
    std::deque<double> ends_us_; // of the waiting requests, the earliest first
    sa_queue_counts counts_;
};

} // namespace embedded
