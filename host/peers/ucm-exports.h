// UCM's functions for the other modules of its host. They find the address of a GID through the attached provider.
#pragma once

#include "devucm-exports.h"

// Published as "ucm_get_ip_fn": finds the address of `gid`. May sleep.
//
// ibat_stat_ok: `arp_data` is filled, with the address in `dst_ip`.
// ibat_stat_pending: exactly one callback follows, unless the request is cancelled first. The callback may come before
// this call returns.
// Any other status: the request failed and no callback follows. ibat_stat_error also means that no provider is
// attached, that memory ran out, or that an argument is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function here, but must not cancel
// itself with ucm_cancel. Its status is that of the provider, or ibat_stat_error if the provider has detached. Its
// record is never null and always has the GID.
using ucm_get_ip_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data,
                                        ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ucm_cancel_fn": cancels every pending request with this callback and context. After the return, no
// callback for them runs. Returns the number of cancelled requests; the others were called back before. May sleep; a
// callback must not cancel itself.
using ucm_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

struct ucm_counters_t {
    uint64_t requests;         // sent to the provider
    uint64_t answered_at_once; // by the provider's own cache
    uint64_t failed_at_once;
    uint64_t answers; // callbacks of the provider with ibat_stat_ok; the next three count callbacks with other statuses
    uint64_t not_found;
    uint64_t timeouts;
    uint64_t errors;
    uint64_t swallowed; // callbacks for requests that had already ended
    uint64_t pending;   // requests that wait now
};

// Published as "ucm_counters_fn". Reads all counters at one moment. Any context.
using ucm_counters_fn_t = void (*)(ucm_counters_t* counters);
