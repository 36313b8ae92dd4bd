// Watches the ServiceRecords that the clients of an HCA register. It sees the same MADs as GSI. It keeps the record of
// the last Set of each service, and the SA's later answers about this record. It is only for reports and sends nothing.
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
    asked,     // a Set was sent and has no answer yet
    not_sent,  // the fabric refused the Set
    refused,   // the SA answered the Set with the error `status`
    confirmed, // the SA accepted the Set, or returned the record
    missing,   // the SA answered that it has no such record
    different, // the SA returned another record for the GID: `sa_record`
    withdrawn, // the SA deleted the record
};

struct registration {
    ib_service_record_v2_t record{}; // of the last Set
    int port = 0;                    // the port that sent it
    uint16_t sm_lid = 0;             // the destination of the last Set
    registration_state state = registration_state::asked;
    uint16_t status = 0;
    ib_service_record_v2_t sa_record{};
    std::optional<uint64_t> confirmed_tick; // when the SA last confirmed this content, if ever
    uint64_t confirmations = 0;             // of this content and of earlier ones
    uint64_t restores = 0;                  // Sets of this record after the SA had lost it
    bool is_unanswered = false;             // a Set, a Delete or a Get of the record waits for its answer
    uint64_t unanswered_tick = 0;
};

// Any context may call it. The lock is held only while copying.
class registrations
{
  public:
    explicit registrations(const exec::executor& exec) : exec_(exec) {}

    // Call it before `port` sends a MAD to `lid`. MADs are in wire order in all calls.
    void note_request(int port, uint16_t lid, const fabric::mad_bytes& mad);

    // Call it when the fabric has refused to send that MAD.
    void note_send_failure(const fabric::mad_bytes& mad);

    // Call it when an answer has arrived.
    void note_answer(const fabric::mad_bytes& mad);

    // One entry for each service.
    std::vector<registration> list() const;

    // The last Set of each record; a record is identified by its ServiceID, GID and P_Key. Limited to the latest 256
    // records.
    std::vector<ib_service_record_v2_t> set_records() const;

  private:
    struct watched_registration : registration {
        uint64_t transaction = 0; // of the request that waits
        uint8_t method = 0;       // of the request that waits
    };

    // The caller holds mutex_.
    watched_registration* find(const ib_service_record_v2_t& record);
    void await(watched_registration& entry, uint8_t method, uint64_t transaction) const;
    void confirm(watched_registration& entry) const;
    void take_answer(watched_registration& entry, uint16_t status, const ib_service_record_v2_t& record) const;
    void remember(const ib_service_record_v2_t& record);
    void publish();

    const exec::executor& exec_;

    // The next two members detect answers about other hosts without the lock.
    std::atomic<bool> awaits_answer_{false};
    std::atomic<uint64_t> own_guid_{0}; // wire order, of the last Set

    mutable std::mutex mutex_; // guards the members below
    std::vector<watched_registration> entries_;
    std::vector<ib_service_record_v2_t> set_records_; // latest last
};

} // namespace stack
