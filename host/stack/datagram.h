// The GSI layer keeps a record of each datagram: who owns it, and its last four steps, for example posted or sent. The
// record is stored in the `priv` bytes at the start of the datagram. If a client passes a datagram that no client owns
// to a GSI call, the process ends with an error that shows these steps.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include <gsi.h>

#include "host/exec/brief-lock.h"

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

// One step in the history of a datagram.
struct datagram_step {
    uint64_t tick;
    datagram_event event;
    uint8_t mgt_class; // management class of the client's registration; 0 if the step concerns no client
    uint8_t port;
};

// Only the owner of the datagram may use its record. Any thread may read the state.
class datagram_record
{
  public:
    // Creates the record of a new datagram, in state `held`. The datagram must be aligned as datagram_record requires.
    static datagram_record& make(gsi_dtgrm_t& datagram, datagram_pool& pool);

    // Returns the record of a datagram that a client passed to the kernel call named `call`. Ends the process
    // (exec::panic) if no pool made the datagram.
    static datagram_record& record_of(void* datagram, const char* call);

    gsi_dtgrm_t& datagram() { return *reinterpret_cast<gsi_dtgrm_t*>(this); }
    datagram_state state() const { return state_.load(std::memory_order_relaxed); }

    // Changes the state from `held` to `new_state`, when a client passes the datagram to the kernel call named `call`.
    // Ends the process (exec::panic) if the state is not `held`: no client owns the datagram. If two threads pass the
    // same datagram at the same time, only one of them succeeds.
    void take_over(datagram_state new_state, const char* call)
    {
        datagram_state state = datagram_state::held;
        if (!exec::compare_exchange(state_, state, new_state, std::memory_order_acq_rel)) hand_over_panic(state, call);
    }

    // The pool and the GSI layer call set_state(), each only while it owns the datagram.
    void set_state(datagram_state new_state) { state_.store(new_state, std::memory_order_release); }

    // Adds a step to the history. The history keeps the last four steps. `tick` is in ms.
    void note(uint64_t tick, datagram_event event, uint8_t mgt_class = 0, uint8_t port = 0)
    {
        steps_[step_count_++ % steps_.size()] = {tick, event, mgt_class, port};
    }

    // Returns the last steps as text, oldest step first, for example "taken at tick 5, posted at tick 7 by class 3 of
    // port 1".
    std::string history() const;

    datagram_pool& pool;
    gsi_class_t* client = nullptr;   // the client's registration, while the datagram is posted or received
    datagram_record* next = nullptr; // in the pool's free list, or in a queue or batch of gsi_adapter

  private:
    explicit datagram_record(datagram_pool& maker) : pool(maker) {}
    [[noreturn]] void hand_over_panic(datagram_state state, const char* call) const;

    static constexpr uint32_t mark = 0x64746772; // the letters "dtgr"; memory without this mark holds no record
    uint32_t mark_ = mark;
    std::atomic<datagram_state> state_{datagram_state::held};
    uint8_t step_count_ = 0;               // number of steps modulo 256
    std::array<datagram_step, 4> steps_{}; // a ring buffer
};
static_assert(sizeof(datagram_record) <= sizeof gsi_dtgrm_t::priv);

} // namespace stack
