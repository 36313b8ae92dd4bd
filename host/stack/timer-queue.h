// The armed timers of one context. The queue finds them by deadline and by record. A new timer reuses the memory of a
// removed one, so add() allocates only if more timers are armed than ever before. The queue has no lock: class timers
// guards it.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <timing.h>

namespace stack
{

// A copy of the fields of a timing_t, made when the timer was armed. The queue does not read the timing_t again.
struct armed_timer {
    uint64_t expires_tick;
    uint64_t number;        // counts up with each arming
    const timing_t* record; // identifies the timer
    void (*function)(unsigned long data);
    unsigned long data;

    // Orders by deadline. Timers with the same deadline are in the order in which they were armed.
    bool operator<(const armed_timer& other) const
    {
        return std::tie(expires_tick, number) < std::tie(other.expires_tick, other.number);
    }
};

class timer_queue
{
  public:
    size_t size() const { return timers_by_deadline_.size(); }

    // All armed timers, the earliest deadline first.
    const std::set<armed_timer>& all() const { return timers_by_deadline_; }

    // The timer with the earliest deadline. The queue must not be empty.
    const armed_timer& first() const
    {
        assert(size() > 0);
        return *timers_by_deadline_.begin();
    }
    bool is_due(uint64_t now_ticks) const { return size() > 0 && first().expires_tick <= now_ticks; }

    // Adds a timer. Its record must not be in the queue.
    void add(const armed_timer& timer)
    {
        assert(!timers_by_record_.contains(timer.record));
        if (spare_.empty()) {
            timers_by_record_.emplace(timer.record, timers_by_deadline_.insert(timer).first);
            return;
        }
        spare_nodes nodes = std::move(spare_.back());
        spare_.pop_back();
        nodes.timer.value() = timer;
        nodes.place.key() = timer.record;
        nodes.place.mapped() = timers_by_deadline_.insert(std::move(nodes.timer)).position;
        timers_by_record_.insert(std::move(nodes.place));
    }

    // Removes the timer of a record. Does nothing if the record is not in the queue.
    void remove(const timing_t* record)
    {
        auto place = timers_by_record_.extract(record);
        if (place.empty()) return;
        const auto timer = place.mapped();
        spare_.push_back({timers_by_deadline_.extract(timer), std::move(place)});
    }

  private:
    using deadline_set = std::set<armed_timer>;
    using record_map = std::unordered_map<const timing_t*, deadline_set::iterator>;
    struct spare_nodes {
        deadline_set::node_type timer;
        record_map::node_type place;
    };

    deadline_set timers_by_deadline_;
    record_map timers_by_record_;
    std::vector<spare_nodes> spare_;
};

} // namespace stack
