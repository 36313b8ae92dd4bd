// IBAT's functions for modules that need the GID of an address. IBAT asks through the resolver, a module that sends
// requests to the SA. (The functions for the resolver are in ibat.h.) IBAT keeps the answers in a cache. If several
// callers ask for the same address, IBAT sends one request for all of them. IBAT repeats a request that gets no answer,
// and gives it up after the last attempt.
//
// A record that comes with ibat_stat_ok has these fields: `dst_ip` is the address of the request, `gid` is the GID that
// owns it, and `local_port_num` is the port on which the answer arrived, if it is known. `mask` names the valid fields.
// IBAT_MASK_STATIC in `mask` marks the host's own mapping: the host itself has this address and this GID. Other fields
// keep their values.
#pragma once

#include "ibat.h"

// Published as "ibat_get_ib_data_fn": finds the GID of the address `ip` (network order). May sleep.
//
// ibat_stat_ok: the cache has the mapping, and `arp_data` is filled.
// ibat_stat_not_found: a recent answer says that the SA has no record of the address.
// ibat_stat_pending: exactly one callback follows, unless the request is cancelled first. The callback may come before
// this call returns.
// ibat_stat_error: no resolver is attached, memory ran out, the address is zero, or a pointer other than
// `user_context` is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function of this file, but must not
// cancel itself with ibat_cancel_fn. The status in the callback is ibat_stat_ok, ibat_stat_not_found, ibat_stat_timeout
// (no attempt was answered) or ibat_stat_error (the resolver refused every attempt, or has detached). The record in the
// callback is never null and always has the address.
using ibat_get_ib_data_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data,
                                              ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_refresh_fn": does the same as ibat_get_ib_data_fn, but ignores the cache and always asks the SA. A
// caller can thus check an answer from the cache. Returns ibat_stat_pending or ibat_stat_error.
using ibat_refresh_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_cancel_fn": cancels every pending request that was made with this callback and context. When the
// call has returned, none of these callbacks runs. Returns the number of cancelled requests. Other requests with this
// callback and context have already been called back. May sleep. A callback must not cancel itself.
using ibat_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_peek_fn": searches only the cache. ibat_stat_ok: `arp_data` is filled. ibat_stat_not_found: the SA
// has no record of the address. ibat_stat_error: the cache has no entry, or `arp_data` is null. Does not change the
// counters. Any context.
using ibat_peek_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data);

// Published as "ibat_cached_fn": does the same as ibat_peek_fn. If the cache has an entry, also counts a lookup and a
// hit.
using ibat_cached_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data);

struct ibat_cache_entry_t {
    uint32_t ip;             // network order
    uint32_t local_port_num; // the port on which the answer arrived; 0 means unknown
    kq_gid_t gid;            // all zero in a negative entry
    bool is_static;          // the host's own mapping; it never expires
    bool is_negative;        // a negative entry: the SA has no record of the address
    uint64_t age_ticks;      // time since the answer
    uint64_t expires_ticks;  // time until the entry expires; 0 in a static entry
};

// Published as "ibat_cache_list_fn": copies up to `capacity` entries that have not expired. First comes the host's own
// mapping, then the other entries with a GID, then the negative entries. Within each kind, the oldest entry comes
// first. Returns the number of all entries that have not expired, which may be larger than `capacity`. Any context.
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
    uint64_t unsolicited;      // answers for an address without a pending request, including duplicates
    uint64_t ignored;          // replies without a usable address, GID or operation
    uint64_t conflicts;        // answers not stored: they contradict the own mapping, or there is no memory
    uint64_t timeouts;         // requests that ended with ibat_stat_timeout; counted once for all callers
    uint64_t entries;          // entries in the cache now, expired or not
    uint64_t pending;          // pending requests now; counted once for all callers
};

// Published as "ibat_counters_fn". Reads all counters at one moment. Any context.
using ibat_counters_fn_t = void (*)(ibat_counters_t* counters);

// Published as "ibat_flush_fn": drops every entry except the host's own mapping. Drops all paths, too. Pending requests
// continue. Returns the number of dropped entries; paths are not counted. Any context.
using ibat_flush_fn_t = int32_t (*)();

// Published as "ibat_forget_fn": drops the entry of the address `ip`. If `gid` is not null, ignores `ip` and drops the
// entry of this GID. Drops the path to the GID, too. Never drops the host's own mapping. Pending requests continue.
// Returns the number of dropped entries, 1 or 0; the path is not counted. Any context.
using ibat_forget_fn_t = int32_t (*)(uint32_t ip, const kq_gid_t* gid);
