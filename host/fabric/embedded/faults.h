// How an embedded subnet misbehaves, and what it counted. Every switch may be turned at any time by any thread and
// holds for the datagrams that set out after it; chances are drawn from the subnet's fault seed. Latency, jitter,
// loss, duplication, reordering and corruption apply to each way on its own: to a request and again to its answer.
#pragma once

#include <atomic>
#include <cstdint>

namespace embedded
{

struct fault_switches {
    static constexpr uint32_t every = UINT32_MAX;

    std::atomic<uint32_t> latency_ticks{0};
    std::atomic<uint32_t> jitter_ticks{0}; // 0 to this many ticks more, drawn for each: datagrams overtake each other

    std::atomic<uint32_t> loss_percent{0};
    std::atomic<uint32_t> duplicate_percent{0}; // arrives twice
    std::atomic<uint32_t> reorder_percent{0};   // held back one tick more, so that later ones overtake it
    std::atomic<uint32_t> corrupt_percent{0};   // a byte of it, any one, arrives as another

    std::atomic<uint32_t> drop_next{0};         // so many datagrams are lost, whichever way they go
    std::atomic<uint32_t> drop_next_answers{0}; // so many answers of the SA are lost after it did what was asked

    std::atomic<bool> queue_full{false};       // no send is accepted
    std::atomic<uint32_t> refuse_percent{0};   // of the sends that are not accepted
    std::atomic<uint32_t> sa_service_ticks{0}; // the SA serves one request after another, so long each

    std::atomic<bool> sa_silent{false}; // the SA does and answers nothing
    std::atomic<bool> sa_busy{false};   // the SA does nothing and answers BUSY

    // The SA does nothing and answers the next `count` requests with this status word.
    void answer_with(uint16_t status, uint32_t count = every)
    {
        sa_status = status;
        sa_status_count = count;
    }
    std::atomic<uint16_t> sa_status{0};
    std::atomic<uint32_t> sa_status_count{0}; // `every`: until it is set to 0
};

// True, and one less to come, while `count` is not used up.
inline bool use_up(std::atomic<uint32_t>& count)
{
    uint32_t left = count;
    while (left > 0 && left < fault_switches::every && !count.compare_exchange_weak(left, left - 1)) {}
    return left > 0;
}

struct traffic_counts {
    uint64_t sent = 0;       // accepted from hosts
    uint64_t arrived = 0;    // handed to hosts
    uint64_t dropped = 0;    // lost on the way, for whatever reason
    uint64_t duplicated = 0; // arrivals more than sent
    uint64_t corrupted = 0;
    uint64_t refused = 0; // not accepted: queue full

    // What the SA was asked.
    uint64_t sa_gets = 0;
    uint64_t sa_sets = 0;
    uint64_t sa_deletes = 0;
    uint64_t sa_others = 0;
};

// Counts how often each fault took effect on a datagram or a request. Switching a fault on does not count.
struct fault_effects {
    // Datagrams. Those that arrive are counted at the SA or at the port's listener.
    uint64_t lost_by_chance = 0;
    uint64_t dropped_next = 0;
    uint64_t arrived_twice = 0;
    uint64_t overtaken = 0; // held back by reordering, and a later one arrived before
    uint64_t arrived_corrupted = 0;
    uint64_t arrived_late = 0;     // by the latency
    uint64_t arrived_jittered = 0; // by one tick of jitter or more

    uint64_t sends_refused_by_chance = 0;
    uint64_t sends_refused_queue_full = 0;

    // Requests that reached the SA.
    uint64_t requests_kept_waiting = 0; // the SA took a tick or more
    uint64_t requests_met_by_silence = 0;
    uint64_t requests_answered_busy = 0;
    uint64_t requests_answered_status = 0; // see answer_with()
    uint64_t requests_after_hand_over = 0; // at another LID than the first one
    uint64_t answers_dropped = 0;          // by drop_next_answers
};

} // namespace embedded
