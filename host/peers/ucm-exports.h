// UCM's functions for modules that need the address of a GID. UCM asks through a provider, a module that sends requests
// to the SA. (The functions for the provider are in devucm-exports.h.)
#pragma once

#include "devucm-exports.h"

// Published as "ucm_get_ip_fn": finds the address of `gid`. May sleep.
//
// ibat_stat_ok: `arp_data` is filled, with the address in `dst_ip`.
// ibat_stat_pending: exactly one callback follows, unless the request is cancelled first. The callback may come before
// this call returns.
// Any other status: the request failed and no callback follows. ibat_stat_error also means that no provider is
// attached, that memory ran out, or that `gid`, `arp_data` or `user_cb` is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function of this file, but must not
// cancel itself with ucm_cancel_fn. The callback gets the provider's status, or ibat_stat_error if the provider has
// detached. The record in the callback is never null and always has the GID.
using ucm_get_ip_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data,
                                        ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ucm_cancel_fn": cancels every pending request that was made with this callback and context. When the
// call has returned, none of these callbacks runs. Returns the number of cancelled requests. Other requests with this
// callback and context have already been called back. May sleep. A callback must not cancel itself.
using ucm_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

struct ucm_counters_t {
    uint64_t requests;         // requests that UCM has passed to the provider
    uint64_t answered_at_once; // requests that the provider has answered before its function returned, without callback
    uint64_t failed_at_once;   // requests that the provider's function has refused
    uint64_t answers;          // callbacks of the provider with ibat_stat_ok
    uint64_t not_found;        // callbacks of the provider with ibat_stat_not_found
    uint64_t timeouts;         // callbacks of the provider with ibat_stat_timeout
    uint64_t errors;           // callbacks of the provider with another status
    uint64_t swallowed;        // callbacks of the provider for a request that had already ended; not counted above
    uint64_t pending;          // pending requests now
};

// Published as "ucm_counters_fn". Reads all counters at one moment. Any context.
using ucm_counters_fn_t = void (*)(ucm_counters_t* counters);
