// UCM, the connection manager. A provider of reverse resolution attaches itself to UCM.
#pragma once

#include "ibat.h"

enum ucm_stat_t : int32_t {
    ucm_stat_ok = 0,
    ucm_stat_error = -255,
};

// Reverse resolution uses the same type of callback as address resolution. But the provider calls it in the completion
// context of an HCA or in an atomic timer, so it must not sleep. IBAT's callbacks may sleep.
using ats_rarp_reply_fn_t = ibat_get_ib_data_reply_fn_t;

// Asks for the address of `arp_data->gid`.
// ibat_stat_ok: the answer is in `arp_data->dst_ip`, no callback follows.
// ibat_stat_pending: exactly one callback follows.
// ibat_stat_error: the request failed; one callback with ibat_stat_timeout may still follow.
// May sleep.
using send_rarp_fn_t = ibat_stat_t (*)(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                                       void* provider_context);

// Published as "ucm_rarp_attach_fn". UCM keeps the function and the provider's context, and stores its handle in
// `*handle`.
using ucm_rarp_attach_fn_t = ucm_stat_t (*)(send_rarp_fn_t send_rarp, void* provider_context, void** handle);

// Published as "ucm_rarp_detach_fn". After the return, UCM makes no calls through the attachment. May sleep.
using ucm_rarp_detach_fn_t = ucm_stat_t (*)(void* handle);
