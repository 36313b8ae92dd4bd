// The speed of an SA: its time for each kind of request, and the length of its queue. The time can grow with the number
// of records. An embedded SA without these limits answers at once, unless fault_switches::sa_service_ticks delays its
// answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "host/fabric/fabric.h"

namespace embedded
{

// The SA's time for a request, in microseconds: fixed_us, plus record_us for every record that the SA has.
struct service_time {
    double fixed_us = 0;
    double record_us = 0;
};

struct sa_limits {
    service_time set = {};
    service_time remove = {};
    service_time get_by_gid = {};
    service_time get_by_address = {}; // also any other request for ServiceRecords
    service_time get_path = {};
    service_time other = {};
    size_t queue_capacity = SIZE_MAX; // requests, including the one in service; further requests are dropped
};

struct sa_queue_counts {
    size_t longest = 0;   // the largest number of requests in the queue, including the one in service
    uint64_t dropped = 0; // requests that were dropped because the queue was full
};

// The queue of requests, which the SA serves one after another. The queue stores only the time at which the service of
// each request ends. It has no lock: the caller guards it.
class sa_queue
{
  public:
    explicit sa_queue(const sa_limits& limits) : limits_(limits) {}

    // Adds a request that arrives now, while the SA has `records` records. Returns the tick at which its service ends,
    // or exec::never if the queue is full.
    uint64_t admit(const fabric::mad_bytes& mad, size_t records, uint64_t now_ticks);

    const sa_queue_counts& counts() const { return counts_; }

  private:
    double microseconds_of(const fabric::mad_bytes& mad, size_t records) const;

    const sa_limits limits_;
    std::deque<double> ends_us_; // the end of each request's service, the earliest first
    sa_queue_counts counts_;
};

} // namespace embedded
