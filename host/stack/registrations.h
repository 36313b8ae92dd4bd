// Watches the ServiceRecords that the clients of an HCA register, for reports. gsi_adapter passes every request that it
// sends and every answer that it receives to class registrations. For each service, the class keeps the record of the
// last Set, and what the SA has answered about this record since then. The class sends nothing itself.
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
    not_sent,  // the fabric refused to send the Set
    refused,   // the SA answered the Set with the error `status`
    confirmed, // the SA accepted the Set, or returned the record
    missing,   // the SA answered that it has no such record
    different, // the SA returned another record (`sa_record`) for this GID
    withdrawn, // the SA deleted the record
};

struct registration {
    ib_service_record_v2_t record{}; // the record of the last Set
    int port = 0;                    // the port that sent the last Set
    uint16_t sm_lid = 0;             // the LID to which the last Set was sent
    registration_state state = registration_state::asked;
    uint16_t status = 0; // of the SA's last answer to a request about this record, in host order
    ib_service_record_v2_t sa_record{};
    std::optional<uint64_t> confirmed_tick; // when the SA last confirmed this content; none if never
    uint64_t confirmations = 0;             // how often the SA has confirmed this or an earlier content
    uint64_t restores = 0;                  // Sets that repeated the record after the SA had lost or changed it
    bool is_unanswered = false;             // a Set, a Delete or a Get of the record has no answer yet
    uint64_t unanswered_tick = 0;           // when that request was sent first
};

// Any context may call these functions. They lock a mutex, but never during a send or a callback.
class registrations
{
  public:
    explicit registrations(const exec::executor& exec) : exec_(exec) {}

    // Call it before `port` sends a MAD to `lid`. In all calls, MADs are in wire order.
    void note_request(int port, uint16_t lid, const fabric::mad_bytes& mad);

    // Call it when the fabric has refused to send a MAD that was passed to note_request().
    void note_send_failure(const fabric::mad_bytes& mad);

    // Call it when an answer has arrived at the HCA.
    void note_answer(const fabric::mad_bytes& mad);

    // Returns one entry for each service, at most 16.
    std::vector<registration> list() const;

    // Returns the records of all Sets, each once, the latest Set last. Two records are the same if ServiceID, GID and
    // P_Key are equal. Only the latest 256 records are kept.
    std::vector<ib_service_record_v2_t> set_records() const;

  private:
    struct watched_registration : registration {
        uint64_t transaction = 0; // TransactionID of the latest request without an answer
        uint8_t method = 0;       // method of that request
    };

    // The caller holds mutex_.
    watched_registration* find(const ib_service_record_v2_t& record);
    void await(watched_registration& entry, uint8_t method, uint64_t transaction) const;
    void confirm(watched_registration& entry) const;
    void take_answer(watched_registration& entry, uint16_t status, const ib_service_record_v2_t& record) const;
    void remember(const ib_service_record_v2_t& record);
    void publish();

    const exec::executor& exec_;

    // The next two members are also read without the lock. Most answers concern other hosts, and note_answer() can thus
    // ignore them quickly.
    std::atomic<bool> awaits_answer_{false};
    std::atomic<uint64_t> own_guid_{0}; // of the GID in the last Set, in wire order

    mutable std::mutex mutex_; // guards the members below
    std::vector<watched_registration> entries_;
    std::vector<ib_service_record_v2_t> set_records_; // the latest Set last
};

} // namespace stack
