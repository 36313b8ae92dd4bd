// Finds the address that belongs to a GID. Asks the attached provider, which is the module that sends requests to the
// SA. The provider gets the number of a request as its context, not a pointer to the request. If a callback comes after
// the request has ended, no request has this number, and the callback is ignored.
//
// One spin lock guards all members. No code sleeps or calls another module while it holds the lock.
#pragma once

#include "host/peers/attachment.h"
#include "host/peers/hash-index.h"
#include "host/peers/reply-queue.h"
#include "host/peers/ucm-exports.h"

namespace ucm
{

// A request that waits for the provider's answer.
struct gid_request {
    asker_t asker; // the first member, because reply_queue frees the whole request with kfree(asker)
    gid_request* next_by_id;
    uint64_t id;
};
static_assert(offsetof(gid_request, asker) == 0);

// For functions without a comment, see devucm-exports.h and ucm-exports.h.
class reverse_resolver
{
  public:
    // `reply` is the callback that each request passes to the provider. It must call take_answer(). Returns false if
    // there is no memory; nothing stays allocated then. May sleep.
    bool open(ats_rarp_reply_fn_t reply);

    // Ends every request with an error and frees everything. May sleep.
    void close();

    ucm_stat_t attach(send_rarp_fn_t send_rarp, void* context, void** handle);
    ucm_stat_t detach(void* handle);
    ibat_stat_t get_ip(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                       void* context);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ucm_counters_t counters();

    // Takes the arguments of a provider's callback. `user_context` is the number of the request. The record may be
    // null. Does not sleep. The caller holds no spin lock.
    void take_answer(ibat_stat_t status, const ibat_arp_data_t* record, void* user_context);

  private:
    using send_rarp_provider = attachment<send_rarp_fn_t>::provider_t;

    void end_attachment();
    bool begin(gid_request* request, send_rarp_provider* provider);
    ibat_stat_t end_send(uint64_t id, ibat_stat_t status);
    void count_answer(ibat_stat_t status);
    void unlink(gid_request* request);

    spinlock_t lock_;
    ats_rarp_reply_fn_t reply_;
    ucm_counters_t counters_;
    attachment<send_rarp_fn_t> attachment_;
    hash_index<gid_request, uint64_t, &gid_request::id, &gid_request::next_by_id> requests_by_id_;
    list_head requests_; // oldest first
    uint64_t last_id_;
    reply_queue replies_;
};

} // namespace ucm
