// The ServiceRecords that an HCA's clients have registered, as GSI sees it on the wire: what the last Set of each
// service carried, and what the SA has said of it since. It serves reports only; nothing is sent or kept back for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "host/exec/executor.h"
#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace stack
{

enum class registration_state {
    asked,     // a Set has left, and was not answered yet
    not_sent,  // the wire did not take the Set
    refused,   // the SA answered the Set with `status`
    confirmed, // the SA accepted the Set, or has shown the record
    missing,   // the SA said that it holds no such record
    different, // the SA has shown another record of the GID: `held`
    withdrawn, // the SA has carried out a Delete of it
};

struct registration {
    ib_service_record_v2_t record{}; // of the last Set
    int port = 0;                    // through which that left
    uint16_t sm_lid = 0;             // where it went
    registration_state state = registration_state::asked;
    uint16_t status = 0;
    ib_service_record_v2_t held{};
    std::optional<uint64_t> confirmed_tick; // when the SA last confirmed this content; empty: never
    uint64_t confirmations = 0;             // of every content
    bool is_unanswered = false;             // a Set, a Delete or a Get of the record waits for its answer
    uint64_t unanswered_tick = 0;
};

// Calls may come from any context and do not block for longer than a copy takes.
class registrations
{
  public:
    explicit registrations(const exec::executor& exec) : exec_(exec) {}

    // A MAD is about to leave `port` for `lid`; in wire order.
    void leaving(int port, uint16_t lid, const fabric::mad_bytes& mad);

    // The wire has not taken it.
    void not_taken(const fabric::mad_bytes& mad);

    // An answer has arrived; in wire order.
    void arrived(const fabric::mad_bytes& mad);

    // One for each service.
    std::vector<registration> list() const;

  private:
    struct watched : registration {
        uint64_t transaction = 0; // of the request that waits
        uint8_t method = 0;       // of that
    };

    watched* find(const ib_service_record_v2_t& record);
    void await(watched& entry, uint8_t method, uint64_t transaction) const;
    void confirm(watched& entry) const;
    void take_answer(watched& entry, uint16_t status, const ib_service_record_v2_t& record) const;
    void publish();

    const exec::executor& exec_;

    // Lets lookups of other hosts pass without the lock.
    std::atomic<bool> awaits_answer_{false};
    std::atomic<uint64_t> own_guid_{0}; // wire order, of the last Set

    mutable std::mutex mutex_; // guards the rest
    std::vector<watched> entries_;
};

} // namespace stack
