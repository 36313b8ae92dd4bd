// The faults of an embedded subnet, and its counters. Any thread may set any switch at any time. A switch applies to
// the datagrams that leave afterwards. Chances are drawn from the subnet's fault seed. Latency, jitter, loss,
// duplication, reordering and corruption apply to a request and again to its answer.
#pragma once

#include <atomic>
#include <cstdint>

namespace embedded
{

struct fault_switches {
    static constexpr uint32_t every = UINT32_MAX;

    std::atomic<uint32_t> latency_ticks{0};
    // The maximum of an additional delay, which is drawn for each datagram. Datagrams then overtake each other.
    std::atomic<uint32_t> jitter_ticks{0};

    std::atomic<uint32_t> loss_percent{0};
    std::atomic<uint32_t> duplicate_percent{0}; // the datagram arrives twice
    std::atomic<uint32_t> reorder_percent{0};   // one tick late, so later datagrams overtake it
    std::atomic<uint32_t> corrupt_percent{0};   // one of its bytes changes

    std::atomic<uint32_t> drop_next{0};         // this many datagrams are lost, requests or answers
    std::atomic<uint32_t> drop_next_answers{0}; // this many answers of the SA are lost; it has served the requests

    std::atomic<bool> queue_full{false};       // no send is accepted
    std::atomic<uint32_t> refuse_percent{0};   // this share of the sends is not accepted
    std::atomic<uint32_t> sa_service_ticks{0}; // the SA's time for one request

    std::atomic<bool> sa_silent{false}; // the SA ignores every request
    std::atomic<bool> sa_busy{false};   // the SA answers BUSY and does nothing else

    // The SA answers the next `count` requests with this status word and does nothing else.
    void answer_with(uint16_t status, uint32_t count = every)
    {
        sa_status = status;
        sa_status_count = count;
    }
    std::atomic<uint16_t> sa_status{0};
    std::atomic<uint32_t> sa_status_count{0}; // `every` means no count-down
};

// Returns true if `count` is not 0. Decrements it, unless it is `every`.
inline bool use_up(std::atomic<uint32_t>& count)
{
    uint32_t rest = count;
    while (rest > 0 && rest < fault_switches::every && !count.compare_exchange_weak(rest, rest - 1)) {}
    return rest > 0;
}

struct subnet_counts {
    uint64_t sent = 0;       // accepted from hosts
    uint64_t arrived = 0;    // delivered to hosts
    uint64_t dropped = 0;    // lost for any reason
    uint64_t duplicated = 0; // additional arrivals
    uint64_t corrupted = 0;
    uint64_t refused = 0; // not accepted: queue full

    // Requests to the SA, by method.
    uint64_t sa_gets = 0;
    uint64_t sa_sets = 0;
    uint64_t sa_deletes = 0;
    uint64_t sa_others = 0;
};

// The number of times that each fault affected a datagram or a request. Setting its switch does not count.
struct fault_effects {
    // Datagrams. Arriving datagrams are counted at the SA or at the port's listener.
    uint64_t lost_by_chance = 0;
    uint64_t dropped_next = 0;
    uint64_t arrived_twice = 0;
    uint64_t overtaken = 0; // delayed by reordering, and a later one arrived earlier
    uint64_t arrived_corrupted = 0;
    uint64_t arrived_late = 0;     // delayed by the latency
    uint64_t arrived_jittered = 0; // delayed by jitter

    uint64_t sends_refused_by_chance = 0;
    uint64_t sends_refused_queue_full = 0;

    // Requests that reached the SA.
    uint64_t requests_kept_waiting = 0; // the answer left at least one tick later
    uint64_t requests_met_by_silence = 0;
    uint64_t requests_answered_busy = 0;
    uint64_t requests_answered_status = 0; // see answer_with()
    uint64_t requests_after_hand_over = 0; // served when the SA had another LID than at first
    uint64_t answers_dropped = 0;          // by drop_next_answers
};

} // namespace embedded
