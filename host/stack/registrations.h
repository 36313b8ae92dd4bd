// Watches the ServiceRecords that the clients of an HCA register, as GSI sees them on the wire: the record of the last
// Set of each service, and the SA's answers about it since. It serves reports only, and sends nothing.
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
    asked,     // a Set was sent and is not answered yet
    not_sent,  // the fabric refused the Set
    refused,   // the SA answered the Set with the error `status`
    confirmed, // the SA accepted the Set, or returned the record
    missing,   // the SA answered that it holds no such record
    different, // the SA returned another record of the GID: `sa_record`
    withdrawn, // the SA deleted the record
};

struct registration {
    ib_service_record_v2_t record{}; // of the last Set
    int port = 0;                    // that sent it
    uint16_t sm_lid = 0;             // its destination
    registration_state state = registration_state::asked;
    uint16_t status = 0;
    ib_service_record_v2_t sa_record{};
    std::optional<uint64_t> confirmed_tick; // when the SA last confirmed this content; empty: never
    uint64_t confirmations = 0;             // of this content and of earlier ones
    uint64_t restores = 0;                  // Sets of this record after the SA did not hold it
    bool is_unanswered = false;             // a Set, a Delete or a Get of the record waits for its answer
    uint64_t unanswered_tick = 0;
};

// Any context may call. The lock is held for the time of a copy only.
class registrations
{
  public:
    explicit registrations(const exec::executor& exec) : exec_(exec) {}

    // `port` sends a MAD to `lid` next. The MAD is in wire order, here and below.
    void note_request(int port, uint16_t lid, const fabric::mad_bytes& mad);

    // The fabric has refused that MAD.
    void note_send_failure(const fabric::mad_bytes& mad);

    // An answer has arrived.
    void note_answer(const fabric::mad_bytes& mad);

    // One entry for each service.
    std::vector<registration> list() const;

    // The last Set of each record, which its ServiceID, GID and P_Key identify; the last few hundred records.
    std::vector<ib_service_record_v2_t> set_records() const;

  private:
    struct watched_registration : registration {
        uint64_t transaction = 0; // of the request that waits for its answer
        uint8_t method = 0;       // of that request
    };

    // With mutex_ held.
    watched_registration* find(const ib_service_record_v2_t& record);
    void await(watched_registration& entry, uint8_t method, uint64_t transaction) const;
    void confirm(watched_registration& entry) const;
    void take_answer(watched_registration& entry, uint16_t status, const ib_service_record_v2_t& record) const;
    void remember(const ib_service_record_v2_t& record);
    void publish();

    const exec::executor& exec_;

    // Answers about other hosts are recognised by these two, without the lock.
    std::atomic<bool> awaits_answer_{false};
    std::atomic<uint64_t> own_guid_{0}; // wire order, of the last Set

    mutable std::mutex mutex_; // guards the members below
    std::vector<watched_registration> entries_;
    std::vector<ib_service_record_v2_t> set_records_; // the latest last
};

} // namespace stack
