// Answers "which GID owns this address" from the cache, or by asking the attached resolver: one request per address
// however many ask, repeated until an answer or a detach comes or the attempts are used up. One spin lock guards all
// of it and is held over nothing that sleeps or calls out.
#pragma once

#include "host/peers/ibat/cache.h"
#include "host/peers/reply-queue.h"

namespace ibat
{

struct resolver_limits {
    cache_limits cache;
    int32_t attempts; // in all
    unsigned long retry_ticks;
};

// One address being asked for.
struct request {
    list_head link; // among those being sent, or in the order of their deadlines
    request* next_by_address;
    uint32_t address;
    uint64_t id; // tells it from an earlier request for the same address
    list_head askers;
    int32_t attempts;
    bool was_sent; // the resolver took at least one attempt
    unsigned long deadline;
};

inline request* first_of(list_head* requests)
{
    return list_entry(requests->next, request, link);
}

// What is needed to send an attempt without the lock; `send_arp` null: nothing to send.
struct send_order {
    send_arp_data_fn_t send_arp;
    void* context;
    uint32_t address;
    uint64_t request_id;
    bool is_retry;
};

// The calls are those of ibat.h and ibat-exports.h.
class resolver
{
  public:
    bool open(const resolver_limits& limits); // false: no memory; nothing is held then
    void close();                             // tells all who wait that it failed, and frees everything; may sleep

    ibat_stat_t attach(send_arp_data_fn_t send_arp, void* context, void** handle);
    ibat_stat_t detach(void* handle);
    ibat_stat_t process_arp(const ibat_arp_data_t& reply);
    ibat_stat_t look_up_gid(const kq_gid_t& gid, ibat_arp_data_t* arp_data);
    ibat_stat_t resolve(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                        void* context);
    ibat_stat_t refresh(uint32_t address, ibat_get_ib_data_reply_fn_t callback, void* context);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_stat_t peek(uint32_t address, ibat_arp_data_t* arp_data);
    int32_t list(ibat_cache_entry_t* entries, int32_t capacity);
    ibat_counters_t counters();
    int32_t flush();
    int32_t forget(uint32_t address, const kq_gid_t* gid);

  private:
    void end_attachment();
    ibat_stat_t from_cache(uint32_t address, ibat_arp_data_t* arp_data) const;
    ibat_stat_t ask(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback, void* context);
    bool join(uint32_t address, asker_t* asker, request* fresh, send_order* order);
    void take_positive(const ibat_arp_data_t& reply);
    void take_negative(uint32_t address);
    void complete(request* finished, ibat_stat_t status, const ibat_arp_data_t& answer);
    void give_up(request* finished, ibat_stat_t status);
    send_order begin_attempt(request* asked);
    void send(const send_order& order);
    void await_answer(request* asked);
    void arm_retry();
    void retry_due();
    bool next_due(send_order* order);
    void arm_sweep();
    void sweep_aged();

    spinlock_t lock_;
    cache cache_;
    int32_t max_attempts_;
    unsigned long retry_ticks_;
    ibat_counters_t counters_;

    send_arp_data_fn_t send_arp_; // null: nobody is attached
    void* send_context_;
    uintptr_t handle_; // of the attachment, new for each
    bool detaching_;
    int32_t sends_running_;
    wait_queue_head_t sends_finished_;

    hash_index<request, uint32_t, &request::address, &request::next_by_address> by_address_;
    list_head sending_; // an attempt is being sent
    list_head waiting_; // for an answer, earliest deadline first
    uint64_t last_request_id_;
    bool retry_armed_; // or its handler at work
    timing_t retry_timer_;
    bool sweep_armed_; // or its handler at work
    timing_t sweep_timer_;
    reply_queue replies_;
};

} // namespace ibat
