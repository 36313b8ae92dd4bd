// What UCM offers to the modules of its host: the address that belongs to a GID, from the provider that is attached.
#pragma once

#include "devucm-exports.h"

// Published as "ucm_get_ip_fn": finds the address of `gid`.
//
// ibat_stat_ok: `arp_data` is filled, the address in `dst_ip`. ibat_stat_pending: exactly one callback follows, unless
// it is withdrawn first; it may come before this call returns. Anything else: the request failed, no callback follows;
// ibat_stat_error also when no provider is attached, memory ran out or the arguments cannot be right.
//
// The callback runs without a lock, in a task that may sleep, and may call anything here except ucm_cancel for
// itself. It tells the provider's status, or ibat_stat_error when the provider has detached. Its record is never
// null and holds at least the GID. May sleep.
using ucm_get_ip_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data,
                                        ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ucm_cancel_fn": withdraws every pending request made with this callback and context. When it returns,
// no callback for them runs or will run. Returns how many it withdrew; the others had been called back. May sleep;
// must not be called by the callback it withdraws.
using ucm_cancel_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

struct ucm_counters_t {
    uint64_t requests;         // handed to the provider
    uint64_t answered_at_once; // by the provider's own cache
    uint64_t failed_at_once;
    uint64_t answers; // callbacks of the provider, by what they told
    uint64_t not_found;
    uint64_t timeouts;
    uint64_t errors;
    uint64_t swallowed; // callbacks for requests that were over already
    uint64_t pending;   // now
};

// Published as "ucm_counters_fn". All numbers are of one moment. Any context.
using ucm_counters_fn_t = void (*)(ucm_counters_t* counters);
