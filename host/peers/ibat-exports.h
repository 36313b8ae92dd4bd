// What IBAT offers to the modules of its host that need addresses, beyond the calls by which a resolver attaches: a
// cache in front of the resolver, with requests that are joined, repeated and given up.
//
// In every record that comes out, `dst_ip` is the address asked about, `gid` the GID that owns it and
// `local_port_num` the port the answer came in on; `mask` names those that are filled, and IBAT_MASK_STATIC the
// host's own mapping. Other fields are left as they were.
#pragma once

#include "ibat.h"

// Published as "ibat_get_ib_data_fn": finds the GID of the address `ip` (network order).
//
// ibat_stat_ok: the cache knew it, `arp_data` is filled. ibat_stat_not_found: the SA has no record of it, by an answer
// from a moment ago. ibat_stat_pending: exactly one callback follows, unless it is withdrawn first; it may come
// before this call returns. ibat_stat_error: no resolver is attached, no memory, or the arguments cannot be right.
//
// The callback runs without a lock, in a task that may sleep, and may call anything here except ibat_cancel for
// itself. It tells ibat_stat_ok, ibat_stat_not_found, ibat_stat_timeout (asked as often as configured, no answer) or
// ibat_stat_error (the resolver refused every attempt, or has detached). Its record is never null, and holds at
// least the address. May sleep.
using ibat_get_ib_data_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data,
                                              ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_refresh_fn": the same, but the SA is asked whatever the cache holds, so that a caller can tell
// whether an answer from the cache still stands. ibat_stat_pending or ibat_stat_error, as above.
using ibat_refresh_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_cancel_fn": withdraws every pending request made with this callback and context. When it returns,
// no callback for them runs or will run. Returns how many it withdrew; the others had been called back. May sleep;
// must not be called by the callback it withdraws.
using ibat_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_peek_fn": looks an address up in the cache and asks nobody. ibat_stat_ok: filled.
// ibat_stat_not_found: the SA has no record of it. ibat_stat_error: the cache knows nothing. Any context; not counted.
using ibat_peek_fn_t = ibat_stat_t (*)(uint32_t ip, ibat_arp_data_t* arp_data);

struct ibat_cache_entry_t {
    uint32_t ip;             // network order
    uint32_t local_port_num; // of the port the answer came in on; 0: not told
    kq_gid_t gid;            // all zero in a negative entry
    bool is_static;          // the host's own mapping: does not age
    bool is_negative;        // the SA has no record of the address
    uint64_t age_ticks;      // since the answer
    uint64_t expires_ticks;  // from now; 0 in a static entry
};

// Published as "ibat_cache_list_fn": copies up to `capacity` entries out, the own mapping first, then the others from
// the oldest, negative ones last. Returns how many there are. Any context.
using ibat_cache_list_fn_t = int32_t (*)(ibat_cache_entry_t* entries, int32_t capacity);

struct ibat_counters_t {
    uint64_t lookups; // by address or GID
    uint64_t hits;    // answered from the cache, negative entries included
    uint64_t misses;
    uint64_t requests;         // first attempts handed to the resolver
    uint64_t retries;          // further attempts
    uint64_t refused;          // attempts of either kind that the resolver did not send
    uint64_t answers;          // answers that named a GID
    uint64_t negative_answers; // answers that said that there is none
    uint64_t unsolicited;      // answers of either kind that nobody waited for, duplicates among them
    uint64_t ignored;          // replies without a usable address, GID or operation
    uint64_t conflicts;        // answers that were not kept: the own mapping stood against them, or there was no room
    uint64_t timeouts;         // requests given up, however many asked
    uint64_t entries;          // held now
    uint64_t pending;          // addresses being asked for now
};

// Published as "ibat_counters_fn". All numbers are of one moment. Any context.
using ibat_counters_fn_t = void (*)(ibat_counters_t* counters);

// Published as "ibat_flush_fn": forgets everything but the host's own mapping. Pending requests go on. Returns how
// many entries it dropped. Any context.
using ibat_flush_fn_t = int32_t (*)();

// Published as "ibat_forget_fn": forgets the learned or negative entry of the address `ip` or, if `gid` is not null,
// the learned entry of that GID. Pending requests go on. Returns 1, or 0 when there was none; the host's own mapping
// stays. Any context.
using ibat_forget_fn_t = int32_t (*)(uint32_t ip, const kq_gid_t* gid);
