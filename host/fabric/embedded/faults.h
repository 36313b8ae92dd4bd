// The faults of an embedded subnet, and its counters. Any thread may set any switch at any time. A switch affects the
// datagrams that are sent, or reach the SA, afterwards. All random draws depend on subnet_options::fault_seed. Latency,
// jitter, loss, duplication, reordering and corruption affect a request, and again its answer.
#pragma once

#include <atomic>
#include <cstdint>

namespace embedded
{

struct fault_switches {
    static constexpr uint32_t every = UINT32_MAX; // a count that never runs out

    std::atomic<uint32_t> latency_ticks{0};
    // The maximum of an additional delay. The delay is drawn for each datagram, so datagrams can overtake each other.
    std::atomic<uint32_t> jitter_ticks{0};

    std::atomic<uint32_t> loss_percent{0};
    std::atomic<uint32_t> duplicate_percent{0}; // the datagram arrives twice
    std::atomic<uint32_t> reorder_percent{0};   // the datagram is one tick late, so later datagrams can overtake it
    std::atomic<uint32_t> corrupt_percent{0};   // one byte of the datagram changes

    std::atomic<uint32_t> drop_next{0};         // number of datagrams, requests or answers, still to be lost
    std::atomic<uint32_t> drop_next_answers{0}; // number of SA answers still to be lost; the SA serves the requests

    std::atomic<bool> queue_full{false};       // the fabric accepts no send
    std::atomic<uint32_t> refuse_percent{0};   // the fabric does not accept this share of the sends
    std::atomic<uint32_t> sa_service_ticks{0}; // the SA's time for one request

    std::atomic<bool> sa_silent{false}; // the SA ignores every request
    std::atomic<bool> sa_busy{false};   // the SA answers requests with BUSY, without serving them

    // Makes the SA answer the next `count` requests with this status word, without serving them.
    void answer_with(uint16_t status, uint32_t count = every)
    {
        sa_status = status;
        sa_status_count = count;
    }
    std::atomic<uint16_t> sa_status{0};
    std::atomic<uint32_t> sa_status_count{0}; // number of requests that still get this answer
};

// Takes 1 from `count` and returns true. If `count` is 0, returns false instead. The value `every` never decreases.
inline bool use_up(std::atomic<uint32_t>& count)
{
    uint32_t rest = count;
    while (rest > 0 && rest < fault_switches::every && !count.compare_exchange_weak(rest, rest - 1)) {}
    return rest > 0;
}

struct subnet_counts {
    uint64_t sent = 0;       // datagrams that the fabric has accepted from hosts
    uint64_t arrived = 0;    // datagrams that the fabric has delivered to hosts
    uint64_t dropped = 0;    // datagrams that were lost on the way, or that the receiver did not accept
    uint64_t duplicated = 0; // duplicates that have left
    uint64_t corrupted = 0;
    uint64_t refused = 0; // sends that the fabric has not accepted

    // Requests that the SA has answered, by method.
    uint64_t sa_gets = 0;
    uint64_t sa_sets = 0;
    uint64_t sa_deletes = 0;
    uint64_t sa_others = 0;
};

// How often each fault has affected a datagram or a request. A fault that is on, but affects nothing, does not count.
struct fault_effects {
    // Effects on datagrams. A late, repeated or changed datagram counts when the SA or the listener of a port receives
    // it.
    uint64_t lost_by_chance = 0;
    uint64_t dropped_next = 0;
    uint64_t arrived_twice = 0;
    uint64_t overtaken = 0; // delayed by reordering, and a later datagram arrived earlier
    uint64_t arrived_corrupted = 0;
    uint64_t arrived_late = 0;     // delayed by the latency
    uint64_t arrived_jittered = 0; // delayed by jitter

    uint64_t sends_refused_by_chance = 0;
    uint64_t sends_refused_queue_full = 0;

    // Effects on requests that reached the SA.
    uint64_t requests_kept_waiting = 0; // the answer left later, because of sa_service_ticks
    uint64_t requests_met_by_silence = 0;
    uint64_t requests_answered_busy = 0;
    uint64_t requests_answered_status = 0; // see answer_with()
    uint64_t requests_after_hand_over = 0; // answered while the SA had another LID than subnet_options::sm_lid
    uint64_t answers_dropped = 0;          // by drop_next_answers
};

} // namespace embedded
