// What the GSI layer knows of a datagram, kept in the datagram's own private area: in whose hands it is, and its last
// steps. Whoever hands over what is not his meets a hard error that tells those steps.
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
    free,     // in its pool
    held,     // a client's
    posted,   // the GSI layer's until its send completion
    received, // the GSI layer's until it is delivered
};

enum class datagram_event : uint8_t { none, taken, posted, refused, sent, received, delivered, put };

struct datagram_step {
    uint64_t tick;
    datagram_event event;
    uint8_t mgt_class; // of the GSI class concerned; 0: of none
    uint8_t port;
};

// Touched by whoever has the datagram in hand; others may look at its state.
class datagram_record
{
  public:
    // Makes the record of a datagram that was never out of its pool, and is aligned for it.
    static datagram_record& make(gsi_dtgrm_t& datagram, datagram_pool& home);

    // The record of a datagram that a client hands to `call`. A hard error when it is none of a pool's.
    static datagram_record& of(void* datagram, const char* call);

    gsi_dtgrm_t& datagram() { return *reinterpret_cast<gsi_dtgrm_t*>(this); }
    datagram_state state() const { return state_.load(std::memory_order_relaxed); }

    // A client hands the datagram over to `call`. A hard error unless it is in a client's hands.
    void take_over(datagram_state next, const char* call)
    {
        datagram_state held = datagram_state::held;
        if (!state_.compare_exchange_strong(held, next, std::memory_order_acq_rel)) hand_over_panic(held, call);
    }

    // The next state of a datagram that is the GSI layer's own.
    void become(datagram_state next) { state_.store(next, std::memory_order_release); }

    void note(uint64_t tick, datagram_event event, uint8_t mgt_class = 0, uint8_t port = 0)
    {
        steps_[step_count_++ % steps_.size()] = {tick, event, mgt_class, port};
    }

    // "taken at tick 5, posted at tick 7 by class 3 of port 1", oldest step first.
    std::string history() const;

    datagram_pool& home;
    gsi_class_t* client = nullptr;   // while posted or received
    datagram_record* next = nullptr; // in the list that it stands in

  private:
    explicit datagram_record(datagram_pool& pool) : home(pool) {}
    [[noreturn]] void hand_over_panic(datagram_state state, const char* call) const;

    static constexpr uint32_t mark = 0x64746772;
    uint32_t mark_ = mark;
    std::atomic<datagram_state> state_{datagram_state::held};
    uint8_t step_count_ = 0;               // wraps round
    std::array<datagram_step, 4> steps_{}; // a ring
};
static_assert(sizeof(datagram_record) <= sizeof gsi_dtgrm_t::priv);

} // namespace stack
