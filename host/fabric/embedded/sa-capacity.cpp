#include "host/fabric/embedded/sa-capacity.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "host/exec/executor.h"
#include "sa-mads.h"

namespace embedded
{

namespace
{

constexpr double microseconds_per_tick = 1000;

} // namespace

uint64_t sa_queue::admit(const fabric::mad_bytes& mad, size_t records, uint64_t now_ticks)
{
    const double now_us = static_cast<double>(now_ticks) * microseconds_per_tick;
    while (!ends_us_.empty() && ends_us_.front() <= now_us) ends_us_.pop_front();
    if (ends_us_.size() >= limits_.queue_capacity) {
        ++counts_.dropped;
        return exec::never;
    }
    const double begin_us = ends_us_.empty() ? now_us : ends_us_.back();
    ends_us_.push_back(begin_us + microseconds_of(mad, records));
    counts_.longest = std::max(counts_.longest, ends_us_.size());
    return static_cast<uint64_t>(std::floor(ends_us_.back() / microseconds_per_tick));
}

double sa_queue::microseconds_of(const fabric::mad_bytes& bytes, size_t records) const
{
    const auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    const auto attribute = from_wire(std::bit_cast<be16_t>(mad.hdr.attrib_id));
    const bool names_gid = from_wire(mad.component_mask) & uint64_t{1} << SR_COMPONENT_SERVICE_GID;
    const service_time* time = &limits_.other;
    if (attribute == SA_ATTR_PATH_RECORD)
        time = &limits_.get_path;
    else if (attribute == SA_ATTR_SERVICE_RECORD && mad.hdr.m.method == MAD_METHOD_SET)
        time = &limits_.set;
    else if (attribute == SA_ATTR_SERVICE_RECORD && mad.hdr.m.method == MAD_METHOD_DELETE)
        time = &limits_.remove;
    else if (attribute == SA_ATTR_SERVICE_RECORD)
        time = names_gid ? &limits_.get_by_gid : &limits_.get_by_address;
    return time->fixed_us + time->record_us * static_cast<double>(records);
}

} // namespace embedded
