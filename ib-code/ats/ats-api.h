// Internal interface of the part that serves other modules: it connects to IBAT and UCM and answers their requests.
// Four files implement it: ats-api, ats-api-rarp, ats-api-verify and ats-api-control. The trace lines of all four files
// name the unit ats_api.cpp.
#pragma once

#define ATS_TRACE_UNIT "ats_api.cpp"

#include "ats.h"
#include "debug-support.h"

// Looks for the function that another module has published under `name`. Stores it in `*slot`, and takes a reference on
// that module; ats_put_peer gives the reference back. Returns false if no module has published that name, or if that
// module is being unloaded.
template <class slot_t>
bool ats_get_peer(const char* name, slot_t* slot)
{
    // inter_module_get returns an untyped pointer. The name determines the function's type.
    *slot = reinterpret_cast<slot_t>(const_cast<void*>(inter_module_get(name)));
    return *slot != nullptr;
}

// Gives back the reference that ats_get_peer has taken, and sets `*slot` to null. Does nothing if `*slot` is null.
template <class slot_t>
void ats_put_peer(const char* name, slot_t* slot)
{
    if (*slot) inter_module_put(name);
    *slot = nullptr;
}

// ---- ats-api: the connection to IBAT, and the delivery of replies ----

// Takes references on IBAT's functions and, unless `attach_ibat` is 0, attaches the context to IBAT. Returns
// ibat_stat_ok. Returns ibat_stat_error, without a reference, if a function is missing or IBAT refuses. May sleep.
ibat_stat_t ats_ibat_init(ats_context_t* ats, int32_t attach_ibat);
// Detaches the context and gives the references back. Does nothing if there is no connection. May sleep.
void ats_ibat_stop(ats_context_t* ats);

// ---- ats-api-rarp: reverse resolution, and the connection to UCM ----

// Takes references on UCM's functions and attaches the context to UCM. Returns ucm_stat_ok. Returns ucm_stat_error,
// without a reference, if a function is missing or UCM refuses. May sleep.
ucm_stat_t ats_ucm_init(ats_context_t* ats);
// Detaches the context, frees its pending requests without a callback, and returns the references. Does nothing if the
// context is not attached to UCM. May sleep.
void ats_ucm_stop(ats_context_t* ats);

// Ask for the address of `arp_data->gid`. Both functions have the type send_rarp_fn_t, which devucm-exports.h
// describes. `provider_context` is the ats_context_t. ats_rarp_send first looks in IBAT's cache; ats_rarp_send_nocache
// does not.
//
// After ibat_stat_ok, no callback follows. After ibat_stat_pending, one callback follows; it may run before the call
// returns. ibat_stat_error means that the request was not sent. If the request is in the list of pending requests, one
// callback follows nevertheless: usually with ibat_stat_timeout, or with the answer to another request for the GID. If
// there was no memory for the request, no callback follows. If the module stops first, it frees the request and no
// callback follows, in all cases.
//
// The callback runs in the completion context or in the request timer, with no lock held. It must not sleep and must
// not keep the record.
ibat_stat_t ats_rarp_send(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                          void* provider_context);
ibat_stat_t ats_rarp_send_nocache(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                                  void* provider_context);

// Completes every pending request for the GID in `ats->rcv_arp_data`, the newest first. `mad_stat` is the MAD's status
// in host order. Completion context only.
void ats_process_rarp_data(uint16_t mad_stat, ats_context_t* ats);

// A callback for ats_rarp_send that logs the result.
void ats_dummy_user_cb(ibat_stat_t status, ibat_arp_data_t* arp_data, void* context);

// ---- ats-api-verify: self-verification ----

extern std::atomic<int32_t> verification_period;              // seconds; 0 or less: off
extern std::atomic<int32_t> verification_period_skew_percent; // 0 to 100
