// The datagrams in transit, ordered by their due tick, then by the order of posting. Most are posted in the order of
// their due ticks: they wait in a line. Only those that overtake others wait in a heap. The queue owns the datagrams.
// It allocates memory when more are in transit than ever before. It has no lock: the caller guards it.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <deque>
#include <vector>

#include "host/exec/ring-queue.h"
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
    bool is_admitted = false; // waits in the SA's queue

    uint64_t number = 0;    // identifies the datagram for an observer
    uint64_t departure = 0; // a number that grows with every departure
    datagram_faults faults = {};

    // Set by the queue, while in transit.
    uint64_t due_tick = 0;
    uint64_t post_number = 0;

    bool is_due_before(const datagram& other) const
    {
        return due_tick != other.due_tick ? due_tick < other.due_tick : post_number < other.post_number;
    }
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
        datagram.due_tick = due_tick;
        datagram.post_number = ++post_count_;
        if (line_.empty() || line_.last().due_tick <= due_tick) {
            line_.push(&datagram);
        } else {
            overtakers_.push_back(&datagram);
            std::ranges::push_heap(overtakers_, is_due_later);
        }
    }

    // Returns the next due datagram, or null if none is due yet. The caller returns it with put(), or posts it again.
    datagram* next_due(uint64_t now_ticks)
    {
        const datagram* next = first();
        if (!next || next->due_tick > now_ticks) return nullptr;
        if (overtakers_.empty() || next != overtakers_.front()) return line_.take_first();
        std::ranges::pop_heap(overtakers_, is_due_later);
        datagram* overtaker = overtakers_.back();
        overtakers_.pop_back();
        return overtaker;
    }
    uint64_t next_due_tick() const
    {
        const datagram* next = first();
        return next ? next->due_tick : UINT64_MAX;
    }

  private:
    // A heap has its greatest element in front, so the earliest datagram must be the greatest.
    static bool is_due_later(const datagram* left, const datagram* right) { return right->is_due_before(*left); }

    const datagram* first() const
    {
        if (line_.empty()) return overtakers_.empty() ? nullptr : overtakers_.front();
        const datagram* next = &line_.at(0);
        return overtakers_.empty() || next->is_due_before(*overtakers_.front()) ? next : overtakers_.front();
    }

    const size_t capacity_;
    std::deque<datagram> datagrams_; // as many as were in transit at once
    std::vector<datagram*> free_;
    exec::ring_queue<datagram> line_;
    std::vector<datagram*> overtakers_; // a heap
    uint64_t post_count_ = 0;
};

} // namespace embedded
