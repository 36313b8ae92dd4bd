// Answers "which address belongs to this GID" by asking the attached provider. The provider knows a request by a number
// instead of by an address in memory: a callback that comes for a request that is over finds nothing, and is
// swallowed. One spin lock guards all of it and is held over nothing that sleeps or calls out.
#pragma once

#include "host/peers/hash-index.h"
#include "host/peers/reply-queue.h"
#include "host/peers/ucm-exports.h"

namespace ucm
{

// One question put to the provider.
struct request {
    asker_t asker; // first: the reply queue frees it, and the request with it
    request* next_by_id;
    uint64_t id;
};
static_assert(offsetof(request, asker) == 0);

// The calls are those of devucm-exports.h and ucm-exports.h.
class reverse_resolver
{
  public:
    // `reply` is the callback that providers get; it leads to answered(). False: no memory; nothing is held then.
    bool open(ats_rarp_reply_fn_t reply);
    void close(); // tells all who wait that it failed, and frees everything; may sleep

    ucm_stat_t attach(send_rarp_fn_t send_rarp, void* context, void** handle);
    ucm_stat_t detach(void* handle);
    ibat_stat_t get_ip(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                       void* context);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ucm_counters_t counters();

    // The provider's callback, with the user context of its request; the record may be null. Does not sleep.
    void answered(ibat_stat_t status, const ibat_arp_data_t* record, void* user_context);

  private:
    void end_attachment();
    bool begin(request* asked);
    ibat_stat_t end_send(uint64_t id, ibat_stat_t status);
    void count_answer(ibat_stat_t status);
    void unlink(request* over);

    spinlock_t lock_;
    ats_rarp_reply_fn_t reply_;
    ucm_counters_t counters_;
    send_rarp_fn_t send_rarp_; // null: nobody is attached
    void* provider_context_;
    uintptr_t handle_; // of the attachment, new for each
    bool detaching_;
    int32_t sends_running_;
    wait_queue_head_t sends_finished_;
    hash_index<request, uint64_t, &request::id, &request::next_by_id> by_id_;
    list_head asked_; // oldest first
    uint64_t last_id_;
    reply_queue replies_;
};

} // namespace ucm
