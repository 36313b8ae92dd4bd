// Finds the GID that owns an address, in the cache or through the attached provider. The provider is the module that
// sends requests to the SA. (ibat.h calls this module the resolver. Here, the resolver is the class below.) All callers
// that ask for the same address share one request. A request is repeated until an answer comes, the provider detaches
// itself, or no attempt is left.
//
// One spin lock guards all members. No code sleeps or calls another module while it holds the lock.
#pragma once

#include "host/peers/attachment.h"
#include "host/peers/ibat/cache.h"
#include "host/peers/ibat/request-list.h"

namespace ibat
{

struct resolver_limits {
    cache_limits cache;
    int32_t attempts;          // largest number of attempts of a request, including the first one
    unsigned long retry_ticks; // time from one attempt to the next
};

// A request for the GID of one address.
struct address_request : request_base {
    address_request* next_by_address;
    uint32_t address;
};

// An attempt that must be sent when the lock has been released. `provider.send` is null if nothing must be sent.
struct send_order {
    attachment<send_arp_data_fn_t>::provider_t provider;
    uint32_t address;
    uint64_t request_id;
    bool is_retry;
};

// For functions without a comment, see ibat.h and ibat-exports.h.
class resolver
{
  public:
    // Returns false if there is no memory; nothing stays allocated then. May sleep.
    bool open(const resolver_limits& limits);

    // Ends every request with an error and frees everything. May sleep.
    void close();

    ibat_stat_t attach(send_arp_data_fn_t send_arp, void* context, void** handle);
    ibat_stat_t detach(void* handle);
    ibat_stat_t take_reply(const ibat_arp_data_t& reply);
    ibat_stat_t look_up_gid(const kq_gid_t& gid, ibat_arp_data_t* arp_data);
    ibat_stat_t resolve(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                        void* context);
    ibat_stat_t refresh(uint32_t address, ibat_get_ib_data_reply_fn_t callback, void* context);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_stat_t peek(uint32_t address, ibat_arp_data_t* arp_data);
    ibat_stat_t cached(uint32_t address, ibat_arp_data_t* arp_data);
    int32_t list(ibat_cache_entry_t* entries, int32_t capacity);
    ibat_counters_t counters();
    int32_t flush();
    int32_t forget(uint32_t address, const kq_gid_t* gid);

  private:
    void end_attachment();
    ibat_stat_t from_cache(uint32_t address, ibat_arp_data_t* arp_data) const;
    ibat_stat_t ask(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback, void* context);
    void take_positive(const ibat_arp_data_t& reply);
    void take_negative(uint32_t address);
    void give_up(address_request* request, ibat_stat_t status);
    send_order begin_attempt(address_request* request);
    void send(const send_order& order);
    void await_answer(address_request* request);
    void retry_due();
    bool next_due(send_order* order);
    void arm_sweep();
    void sweep_aged();

    spinlock_t lock_;
    cache cache_;
    int32_t max_attempts_;
    unsigned long retry_ticks_;
    ibat_counters_t counters_;

    attachment<send_arp_data_fn_t> attachment_;

    request_list<address_request, uint32_t, &address_request::address, &address_request::next_by_address> requests_;
    bool is_sweep_armed_; // true while sweep_timer_ is armed or its handler runs
    timing_t sweep_timer_;
};

} // namespace ibat
