// The armed timers of one context by deadline, and by record. What a disarmed timer leaves behind serves the next one,
// so that arming allocates only while more timers are armed than ever before. The caller guards it.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <set>
#include <unordered_map>
#include <vector>

#include <timing.h>

namespace stack
{

// What was asked for when the timer was armed; its record is not looked at again.
struct armed_timer {
    uint64_t expires_tick;
    uint64_t number; // in the order of arming
    const timing_t* record;
    void (*function)(unsigned long data);
    unsigned long data;

    // Timers of one tick are due in the order in which they were armed.
    bool operator<(const armed_timer& other) const
    {
        return expires_tick != other.expires_tick ? expires_tick < other.expires_tick : number < other.number;
    }
};

class timer_queue
{
  public:
    size_t size() const { return by_deadline_.size(); }

    // All of them, by deadline.
    const std::set<armed_timer>& all() const { return by_deadline_; }

    // The next one to run; there must be one.
    const armed_timer& first() const { return *by_deadline_.begin(); }
    bool is_due(uint64_t now_ticks) const { return size() > 0 && first().expires_tick <= now_ticks; }

    // The record must not be armed.
    void add(const armed_timer& timer)
    {
        if (spare_.empty()) {
            by_record_.emplace(timer.record, by_deadline_.insert(timer).first);
            return;
        }
        spare_nodes nodes = std::move(spare_.back());
        spare_.pop_back();
        nodes.timer.value() = timer;
        nodes.place.key() = timer.record;
        nodes.place.mapped() = by_deadline_.insert(std::move(nodes.timer)).position;
        by_record_.insert(std::move(nodes.place));
    }

    // Nothing happens when the record is not armed.
    void remove(const timing_t* record)
    {
        auto place = by_record_.extract(record);
        if (place.empty()) return;
        const auto timer = place.mapped();
        spare_.push_back({by_deadline_.extract(timer), std::move(place)});
    }

  private:
    using deadline_set = std::set<armed_timer>;
    using record_map = std::unordered_map<const timing_t*, deadline_set::iterator>;
    struct spare_nodes {
        deadline_set::node_type timer;
        record_map::node_type place;
    };

    deadline_set by_deadline_;
    record_map by_record_;
    std::vector<spare_nodes> spare_;
};

} // namespace stack
