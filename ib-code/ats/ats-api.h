// Internal interface of the resolution service. Four files implement it: ats-api, ats-api-rarp, ats-api-verify and
// ats-api-control. The trace lines of all four name ats_api.cpp.
#pragma once

#define ATS_TRACE_UNIT "ats_api.cpp"

#include "ats.h"
#include "debug-support.h"

// Stores the function published under `name` in `*slot` and takes a reference on its module. ats_put_peer returns the
// reference. Returns false if no module has published that name.
template <class slot_t>
bool ats_get_peer(const char* name, slot_t* slot)
{
    // The registry holds untyped pointers. The name determines the function's type.
    *slot = reinterpret_cast<slot_t>(const_cast<void*>(inter_module_get(name)));
    return *slot != nullptr;
}

// Returns the reference, if there is one, and sets `*slot` to null.
template <class slot_t>
void ats_put_peer(const char* name, slot_t* slot)
{
    if (*slot) inter_module_put(name);
    *slot = nullptr;
}

// ---- ats-api: the binding to IBAT, and the delivery of replies ----

ibat_stat_t ats_ibat_init(ats_context_t* ats, int32_t attach_ibat);
void ats_ibat_stop(ats_context_t* ats);

// ---- ats-api-rarp: reverse resolution, and the binding to UCM ----

ucm_stat_t ats_ucm_init(ats_context_t* ats);
void ats_ucm_stop(ats_context_t* ats);

// Both functions are send_rarp_fn_t; the provider's context is the ats_context_t. The second one does not look in
// IBAT's cache.
// The callback runs in the completion context or in the request timer, with no lock held. It must not sleep and must
// not keep the record.
// The call returns ibat_stat_error if the request was queued but could not be sent. The callback still follows then,
// usually with ibat_stat_timeout. No callback follows if there was no memory for the request, or if the module stops
// first.
ibat_stat_t ats_rarp_send(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                          void* provider_context);
ibat_stat_t ats_rarp_send_nocache(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                                  void* provider_context);

// Completes every request for the GID in `rcv_arp_data`, the newest first. `mad_stat` is the same as in
// ats_process_sa_reply.
void ats_process_rarp_data(uint16_t mad_stat, ats_context_t* ats);

// A completion callback that logs the result.
void ats_dummy_user_cb(ibat_stat_t status, ibat_arp_data_t* arp_data, void* context);

// ---- ats-api-verify: self-verification ----

extern std::atomic<int32_t> verification_period;              // seconds; 0 or less: off
extern std::atomic<int32_t> verification_period_skew_percent; // 0 to 100
