// A connection to the SA with many requests in flight, for measurements. It sends single datagrams through libibumad,
// and counts answers, late answers and losses. Only one thread may use it.
#pragma once

#include <chrono>
#include <vector>

#include "bench/umad/sa-requests.h"

namespace sa_load
{

using clock = std::chrono::steady_clock;

// The results of some requests.
struct tally {
    uint64_t answered = 0;         // with any status
    uint64_t late = 0;             // answers after more than `late_after`
    uint64_t busy = 0;             // answers with the status BUSY
    uint64_t refused = 0;          // answers with another error status
    uint64_t lost = 0;             // requests without an answer within `lost_after`
    std::vector<float> latency_ms; // of each answer

    bool has_errors() const { return busy > 0 || refused > 0; }

    // Returns the latency that `percent` percent of the answers do not exceed. Returns 0 without answers.
    double percentile_ms(double percent);
};

class connection
{
  public:
    // An answer is late after one second, because a host gives up a lookup after one to two seconds. A request counts
    // as lost after 20 seconds, because nobody waits for its answer any more.
    static constexpr std::chrono::milliseconds late_after{1000}, lost_after{20000};
    static constexpr size_t most_in_flight = 65536;

    // Opens the first active port. Throws std::runtime_error if there is none, or if it cannot be used.
    connection();
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // The GID of the port.
    kq_gid_t gid() const;

    // Sends a request. Throws std::runtime_error if libibumad refuses it, or if too many are in flight.
    void send(const sa_mad_v2_t& request);

    // Waits for an answer, for at most `longest`. Counts it in `results`, unless its request was counted as lost
    // before. The kernel may report instead that a request got no answer: then counts this request as lost. Returns
    // false if neither came.
    bool receive(std::chrono::milliseconds longest);

    // Counts as lost the requests that got no answer within `lost_after`.
    void give_up_lost();

    size_t in_flight() const { return in_flight_; }

    tally results; // the caller may clear it before a measurement

  private:
    struct slot {
        uint32_t transaction = 0; // 0 means that the slot is free
        clock::time_point send_time;
    };

    void release(slot& slot);

    umad_port_t attributes_;
    int port_ = -1, agent_ = -1;
    std::vector<slot> slots_;
    std::vector<uint32_t> free_slots_;
    uint32_t sent_count_ = 0;
    size_t in_flight_ = 0;
};

} // namespace sa_load
