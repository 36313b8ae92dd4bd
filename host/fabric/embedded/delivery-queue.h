// The datagrams under way, by the tick at which they are due and, within one tick, in the order in which they set
// out. All memory is taken at the beginning. The caller guards it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "host/fabric/fabric.h"

namespace embedded
{

struct datagram {
    fabric::mad_bytes mad;
    uint16_t source_lid;
    uint16_t destination_lid;
    uint32_t destination_qpn;
    uint32_t q_key;
    uint16_t p_key; // as it stands in the packet
    uint8_t sl;
    uint8_t static_rate;
    bool from_sa;

    // The faults that this datagram has met.
    struct {
        uint64_t departure = 0; // grows from one that sets out to the next
        bool is_late = false;
        bool is_jittered = false;
        bool is_held_back = false;
        bool is_corrupted = false;
        bool is_twin = false;
    } way = {};
};

class delivery_queue
{
  public:
    explicit delivery_queue(size_t capacity) : datagrams_(capacity)
    {
        under_way_.reserve(capacity);
        free_.reserve(capacity);
        for (datagram& each : datagrams_) free_.push_back(&each);
    }

    // A datagram to fill in, or null when all are under way.
    datagram* take()
    {
        if (free_.empty()) return nullptr;
        datagram* taken = free_.back();
        free_.pop_back();
        return taken;
    }
    void put(datagram& unused) { free_.push_back(&unused); }

    void post(datagram& leaving, uint64_t due_tick)
    {
        under_way_.push_back({due_tick, ++posted_, &leaving});
        std::push_heap(under_way_.begin(), under_way_.end());
    }

    // The next that is due, which is now the caller's to put or post again; null: none is due yet.
    datagram* next_due(uint64_t now_ticks)
    {
        if (under_way_.empty() || under_way_.front().due_tick > now_ticks) return nullptr;
        std::pop_heap(under_way_.begin(), under_way_.end());
        datagram* due = under_way_.back().content;
        under_way_.pop_back();
        return due;
    }
    uint64_t next_due_tick() const { return under_way_.empty() ? UINT64_MAX : under_way_.front().due_tick; }

  private:
    struct journey {
        uint64_t due_tick;
        uint64_t number;
        datagram* content;

        // The heap keeps the greatest in front, which is to be the earliest.
        bool operator<(const journey& other) const
        {
            return due_tick != other.due_tick ? due_tick > other.due_tick : number > other.number;
        }
    };

    std::vector<datagram> datagrams_;
    std::vector<datagram*> free_;
    std::vector<journey> under_way_;
    uint64_t posted_ = 0;
};

} // namespace embedded
