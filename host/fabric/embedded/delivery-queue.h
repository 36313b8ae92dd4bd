// The datagrams in transit, ordered by their due tick, then by the order of posting. The queue owns them. It
// allocates memory when more are in transit than ever before. It has no lock: the caller guards it.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <deque>
#include <vector>

#include "host/fabric/fabric.h"

namespace embedded
{

// The faults that have affected a datagram.
struct datagram_faults {
    bool is_late = false;
    bool is_jittered = false;
    bool is_held_back = false;
    bool is_corrupted = false;
    bool is_twin = false;
};

struct datagram {
    fabric::mad_bytes mad;
    uint16_t source_lid;
    uint16_t destination_lid;
    uint32_t destination_qpn;
    uint32_t q_key;
    uint16_t p_key; // the P_Key of the packet
    uint8_t sl;
    uint8_t static_rate;
    bool is_from_sa;

    uint64_t number = 0;    // identifies the datagram for an observer
    uint64_t departure = 0; // a number that grows with every departure
    datagram_faults faults = {};
};

class delivery_queue
{
  public:
    explicit delivery_queue(size_t capacity) : capacity_(capacity) {}

    // Returns a free datagram, or null if all are in transit. The caller fills it in. Then the caller posts it, or
    // returns it with put().
    datagram* take()
    {
        if (free_.empty()) return datagrams_.size() < capacity_ ? &datagrams_.emplace_back() : nullptr;
        datagram* taken_datagram = free_.back();
        free_.pop_back();
        return taken_datagram;
    }
    void put(datagram& datagram)
    {
        assert(free_.size() < datagrams_.size());
        free_.push_back(&datagram);
    }

    void post(datagram& datagram, uint64_t due_tick)
    {
        heap_.push_back({due_tick, ++post_count_, &datagram});
        std::push_heap(heap_.begin(), heap_.end());
    }

    // Returns the next due datagram, or null if none is due yet. The caller returns it with put(), or posts it again.
    datagram* next_due(uint64_t now_ticks)
    {
        if (heap_.empty() || heap_.front().due_tick > now_ticks) return nullptr;
        std::pop_heap(heap_.begin(), heap_.end());
        datagram* due_datagram = heap_.back().content;
        heap_.pop_back();
        return due_datagram;
    }
    uint64_t next_due_tick() const { return heap_.empty() ? UINT64_MAX : heap_.front().due_tick; }

  private:
    struct transit {
        uint64_t due_tick;
        uint64_t number;
        datagram* content;

        // A heap has its greatest element in front, so the earliest datagram must be the greatest.
        bool operator<(const transit& other) const
        {
            return due_tick != other.due_tick ? due_tick > other.due_tick : number > other.number;
        }
    };

    const size_t capacity_;
    std::deque<datagram> datagrams_; // as many as were in transit at once
    std::vector<datagram*> free_;
    std::vector<transit> heap_;
    uint64_t post_count_ = 0;
};

} // namespace embedded
