// Internal interface of the SA client. Five files implement it, one for each task. Their trace lines name the unit
// ats-sa.
#pragma once

#define ATS_TRACE_UNIT "ats_sa.cpp"

#include "ats.h"
#include "debug-support.h"

constexpr unsigned long ATS_DELETE_WAIT_TICKS = 20; // for the SA's answer to a Delete

// ---- ats-sa-mad: the ServiceRecord datagram ----

inline sa_mad_v2_t& sa_mad_of(gsi_dtgrm_t* dtgrm)
{
    return *reinterpret_cast<sa_mad_v2_t*>(dtgrm->mad);
}

// Fills a datagram with a request that leaves through `port`. The next function explains the arguments.
void ats_sa_encode_mad(gsi_dtgrm_t* dtgrm, const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                       const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get, uint8_t is_table);

// Takes a datagram from the context's pool and encodes a request in it. `is_set` and `is_get` choose the request. For a
// lookup, ATS_GET_SR_ARP_OP selects by address, and any other `op` by GID. `port` is the active port, which the caller
// has read once because it may change at any moment. Returns 0, or -1 without a datagram.
int32_t ats_sa_encode_service_rec_set_get_del_mad(const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                                                  const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get,
                                                  uint8_t is_table, gsi_dtgrm_t** dt);

// Decodes a reply into the context's cleared `rcv_arp_data`. Returns 0 for a ServiceRecord with a good status; its
// class-specific code may still be an error. Otherwise returns -1, with at most the GID stored.
int32_t ats_sa_gsi_decode_recv_dtgrm(const ats_port_ctx_t* ats_port, gsi_dtgrm_t* dtgrm);

// Logs a ServiceRecord MAD at level FUNC. Ends the service name with a NUL at any level.
void ats_sa_dump_service_record_mad(mad_t* sa_mad);

// ---- ats-sa-dtgrm: sent and received datagrams ----

// GSI's callbacks; the context is the port. They run in the HCA's completion context, one at a time.
void ats_sa_gsi_send_compl_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);
void ats_sa_gsi_recv_compl_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

// ---- ats-sa-ports: the active port, its registration, and port events ----

// Clears earlier answers and sends a Delete of the record that `sm_registered_gid` names. Returns 0, or -1 if it was
// not sent.
int32_t ats_sa_send_delete(ats_context_t* ats);

// Sleeps until the SA has answered, a signal is pending or ATS_DELETE_WAIT_TICKS have passed.
void ats_sa_wait_for_delete_answer(ats_context_t* ats);

// Replaces the record at the SA. Deletes the record registered last (a failure is ignored) and sets that of the active
// port. The caller holds `ats_sem` and has checked that there is an active port. Returns 0 if the Set was posted,
// otherwise -1. May sleep.
int32_t ats_sa_set_new_sr(ats_context_t* ats);

// The verbs layer's callback. May sleep.
void ats_async_event_cb(kq_event_record_st event_record);

// ---- ats-sa-lookup: lookups for others, and their request timer ----

// The request timer's function; `context` is the ats_context_t. Does not sleep.
void ats_req_timer_handler(unsigned long context);
