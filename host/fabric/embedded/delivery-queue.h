// The datagrams in transit. They leave the queue in the order of their due ticks. Datagrams with the same due tick
// leave in the order in which they were posted. Most datagrams are also posted in the order of their due ticks. Such
// datagrams wait in line_, which is cheap. A datagram that overtakes others waits in a heap. The queue owns the
// datagrams. It allocates memory only when one of its containers becomes larger than ever before. It has no lock: the
// caller guards it.
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

// The faults that have affected a datagram (see faults.h).
struct datagram_faults {
    bool is_late = false;      // late by the latency
    bool is_jittered = false;  // late by jitter
    bool is_held_back = false; // one tick late by reordering
    bool is_corrupted = false;
    bool is_twin = false; // it is a duplicate of another datagram
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
    bool is_admitted = false; // the SA's queue (sa_queue) has accepted it

    uint64_t number = 0;    // identifies the datagram for an observer
    uint64_t departure = 0; // its number in the order of departure
    datagram_faults faults = {};

    // Set by delivery_queue::post().
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

    // Returns a free datagram, or null if `capacity` datagrams are in use. The caller fills the datagram in, and then
    // posts it or gives it back with put().
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

    // Removes the first datagram from the queue and returns it, or returns null if none is due yet. The caller gives
    // the datagram back with put(), or posts it again.
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
    std::deque<datagram> datagrams_; // all datagrams, free or in use
    std::vector<datagram*> free_;
    exec::ring_queue<datagram> line_;
    std::vector<datagram*> overtakers_; // a heap: the next due datagram is in front
    uint64_t post_count_ = 0;
};

} // namespace embedded
