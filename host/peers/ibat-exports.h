// IBAT's functions for modules of its host that need addresses. (ibat.h has the functions for the resolver, the module
// that asks the SA.) IBAT keeps a cache of the resolver's answers. If several askers ask for one address, IBAT sends
// one request. It repeats the request and finally gives up.
//
// Every record from IBAT has these fields: `dst_ip` is the address of the request, `gid` is the GID that owns it, and
// `local_port_num` is the port on which the answer arrived. `mask` names the valid fields. IBAT_MASK_STATIC marks the
// host's own mapping. Other fields keep their values.
#pragma once

#include "ibat.h"

// Published as "ibat_get_ib_data_fn": finds the GID of the address `ip` (network order). May sleep.
//
// ibat_stat_ok: the cache has the mapping, and `arp_data` is filled.
// ibat_stat_not_found: a recent answer says that the SA has no record of the address.
// ibat_stat_pending: exactly one callback follows, unless the request is cancelled first. The callback may come before
// this call returns.
// ibat_stat_error: no resolver is attached, memory ran out, the address is zero, or a pointer is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function here, but must not cancel
// itself with ibat_cancel. Its status is ibat_stat_ok, ibat_stat_not_found, ibat_stat_timeout (no attempt was answered)
// or ibat_stat_error (the resolver refused every attempt, or has detached). Its record is never null and always has the
// address.
using ibat_get_ib_data_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data,
                                              ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_refresh_fn": the same, but always asks the SA. A caller can thus check an answer from the cache.
// Returns ibat_stat_pending or ibat_stat_error.
using ibat_refresh_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_cancel_fn": cancels every pending request with this callback and context. After the return, no
// callback for them runs. Returns the number of cancelled requests; the others were called back before. May sleep; a
// callback must not cancel itself.
using ibat_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_peek_fn": searches only the cache. ibat_stat_ok: `arp_data` is filled. ibat_stat_not_found: the SA
// has no record of the address. ibat_stat_error: the cache has no entry, or `arp_data` is null. Any context; not
// counted.
using ibat_peek_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data);

// Published as "ibat_cached_fn": the same, but counts a lookup, and a hit if the cache has an entry.
using ibat_cached_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data);

struct ibat_cache_entry_t {
    uint32_t ip;             // network order
    uint32_t local_port_num; // the port on which the answer arrived; 0 means unknown
    kq_gid_t gid;            // all zero in a negative entry
    bool is_static;          // the host's own mapping; it never expires
    bool is_negative;        // the SA has no record of the address
    uint64_t age_ticks;      // since the answer
    uint64_t expires_ticks;  // from now; 0 in a static entry
};

// Published as "ibat_cache_list_fn": copies up to `capacity` entries. The order is the own mapping, the learned
// entries, the negative entries; each kind begins with the oldest. Returns the number of all entries. Any context.
using ibat_cache_list_fn_t = int32_t (*)(ibat_cache_entry_t* entries, int32_t capacity);

struct ibat_counters_t {
    uint64_t lookups; // by address or GID
    uint64_t hits;    // answered from the cache, negative entries included
    uint64_t misses;
    uint64_t requests;         // first attempts that the resolver sent
    uint64_t retries;          // further attempts that the resolver sent
    uint64_t refused;          // attempts of either kind that the resolver did not send
    uint64_t answers;          // answers with a GID
    uint64_t negative_answers; // answers without a record
    uint64_t unsolicited;      // answers of either kind without a waiting request, including duplicates
    uint64_t ignored;          // replies without a usable address, GID or operation
    uint64_t conflicts;        // answers not stored: they contradict the own mapping, or the cache is full
    uint64_t timeouts;         // requests given up; a request counts once for all its askers
    uint64_t entries;          // in the cache now
    uint64_t pending;          // requests now
};

// Published as "ibat_counters_fn". Reads all counters at one moment. Any context.
using ibat_counters_fn_t = void (*)(ibat_counters_t* counters);

// Published as "ibat_flush_fn": drops every entry except the host's own mapping. Pending requests continue. Returns the
// number of dropped entries. Any context.
using ibat_flush_fn_t = int32_t (*)();

// Published as "ibat_forget_fn": drops the learned or negative entry of the address `ip`. If `gid` is not null, drops
// the learned entry of that GID instead. Pending requests continue. Returns 1, or 0 if there was no such entry. Never
// drops the host's own mapping. Any context.
using ibat_forget_fn_t = int32_t (*)(uint32_t ip, const kq_gid_t* gid);
