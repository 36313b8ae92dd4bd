// The functions between UCM, the connection manager, and a provider of reverse resolution (from a GID to an IPv4
// address). The provider attaches itself to UCM. UCM then sends its requests to the provider.
#pragma once

#include "ibat.h"

enum ucm_stat_t : int32_t {
    ucm_stat_ok = 0,
    ucm_stat_error = -255,
};

// The callback of a reverse request. It has the same type as IBAT's callbacks, which may sleep. This callback must not
// sleep: the provider calls it in the completion context of an HCA or in an atomic timer. The record is null after a
// time-out.
using ats_rarp_reply_fn_t = ibat_get_ib_data_reply_fn_t;

// Asks for the address of `arp_data->gid`. May sleep. The results:
// ibat_stat_ok: the answer is in `arp_data->dst_ip`. No callback follows.
// ibat_stat_pending: one callback follows. It may run before the call returns.
// ibat_stat_error: the request was not sent. One callback may follow nevertheless, usually with ibat_stat_timeout.
// A provider that stops frees the requests that it still has. No callback follows for these requests.
using send_rarp_fn_t = ibat_stat_t (*)(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                                       void* provider_context);

// UCM publishes this function as "ucm_rarp_attach_fn". It attaches a provider. UCM keeps `send_rarp` and
// `provider_context`, and stores a handle for the detach function in `*handle`. Returns ucm_stat_error if a provider is
// attached already.
using ucm_rarp_attach_fn_t = ucm_stat_t (*)(send_rarp_fn_t send_rarp, void* provider_context, void** handle);

// UCM publishes this function as "ucm_rarp_detach_fn". It ends the attachment. After the return, UCM does not call
// `send_rarp` any more. Returns ucm_stat_error if the handle is not that of the attachment. May sleep.
using ucm_rarp_detach_fn_t = ucm_stat_t (*)(void* handle);
