// The GSI layer's record of a datagram: its owner and its last steps. It is in the private area of the datagram. If a
// client uses a datagram that it does not own, a hard error shows those steps.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include <gsi.h>

namespace stack
{

class datagram_pool;

enum class datagram_state : uint8_t {
    free,     // its pool owns it
    held,     // a client owns it
    posted,   // the GSI layer owns it until its send completion
    received, // the GSI layer owns it until it is delivered
};

enum class datagram_event : uint8_t { none, taken, posted, refused, sent, received, delivered, put };

struct datagram_step {
    uint64_t tick;
    datagram_event event;
    uint8_t mgt_class; // of the GSI class; 0 means none
    uint8_t port;
};

// Only the owner of the datagram may use its record. Any thread may read the state.
class datagram_record
{
  public:
    // Creates the record of a new datagram, in state `held`. The datagram has the alignment of the record.
    static datagram_record& make(gsi_dtgrm_t& datagram, datagram_pool& pool);

    // Returns the record of a datagram that a client passed to `call`. A hard error if no pool made the datagram.
    static datagram_record& record_of(void* datagram, const char* call);

    gsi_dtgrm_t& datagram() { return *reinterpret_cast<gsi_dtgrm_t*>(this); }
    datagram_state state() const { return state_.load(std::memory_order_relaxed); }

    // A client has passed the datagram to `call`. A hard error unless a client owns it. If two calls come at the same
    // time, one succeeds.
    void take_over(datagram_state new_state, const char* call)
    {
        datagram_state state = datagram_state::held;
        if (!state_.compare_exchange_strong(state, new_state, std::memory_order_acq_rel)) hand_over_panic(state, call);
    }

    // Only the GSI layer calls it, while it owns the datagram.
    void set_state(datagram_state new_state) { state_.store(new_state, std::memory_order_release); }

    // Adds a step to the history, which keeps the last four.
    void note(uint64_t tick, datagram_event event, uint8_t mgt_class = 0, uint8_t port = 0)
    {
        steps_[step_count_++ % steps_.size()] = {tick, event, mgt_class, port};
    }

    // The last steps, for example "taken at tick 5, posted at tick 7 by class 3 of port 1", oldest step first.
    std::string history() const;

    datagram_pool& pool;
    gsi_class_t* client = nullptr;   // while posted or received
    datagram_record* next = nullptr; // in the pool's free list, or in the queue of the HCA

  private:
    explicit datagram_record(datagram_pool& maker) : pool(maker) {}
    [[noreturn]] void hand_over_panic(datagram_state state, const char* call) const;

    static constexpr uint32_t mark = 0x64746772;
    uint32_t mark_ = mark;
    std::atomic<datagram_state> state_{datagram_state::held};
    uint8_t step_count_ = 0;               // wraps
    std::array<datagram_step, 4> steps_{}; // a ring
};
static_assert(sizeof(datagram_record) <= sizeof gsi_dtgrm_t::priv);

} // namespace stack
