// Internal interface of the SA client: the part that exchanges ServiceRecord datagrams with the SA and registers the
// host. Five files implement it: ats-sa, ats-sa-mad, ats-sa-dtgrm, ats-sa-ports and ats-sa-lookup. The trace lines of
// all five files name the unit ats_sa.cpp.
#pragma once

#define ATS_TRACE_UNIT "ats_sa.cpp"

#include "ats.h"
#include "debug-support.h"

constexpr unsigned long ATS_DELETE_WAIT_TICKS = 20; // the longest wait for the SA's answer to a Delete

// ---- ats-sa-mad: the ServiceRecord datagram ----

inline sa_mad_v2_t& sa_mad_of(gsi_dtgrm_t* dtgrm)
{
    return *reinterpret_cast<sa_mad_v2_t*>(dtgrm->mad);
}

// Fills a datagram with a request that will be sent through `port`. The arguments are those of
// ats_sa_encode_service_rec_set_get_del_mad.
void ats_sa_encode_mad(gsi_dtgrm_t* dtgrm, const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                       const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get, uint8_t is_table);

// Takes a datagram from the context's pool, encodes a request in it and stores the pointer to the datagram in `*dt`.
// The request is a Set if `is_set`, otherwise a Get (a GetTable with `is_table`) if `is_get`, otherwise a Delete. A Get
// selects records by address if `op` is ATS_GET_SR_ARP_OP, otherwise by GID. `port` is the port that sends the request.
// The caller has read `port` from `active_port` once, because `active_port` may change at any moment. Returns 0.
// Returns -1 if the pool has no free datagram.
int32_t ats_sa_encode_service_rec_set_get_del_mad(const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                                                  const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get,
                                                  uint8_t is_table, gsi_dtgrm_t** dt);

// Decodes a reply into the context's `rcv_arp_data`, which the caller has cleared. Returns 0 for a ServiceRecord
// without common status bits (IBA 13.4.7); its class-specific code may still be an error. Otherwise returns -1, and at
// most the GID is stored.
int32_t ats_sa_gsi_decode_recv_dtgrm(const ats_port_ctx_t* ats_port, gsi_dtgrm_t* dtgrm);

// Logs a ServiceRecord MAD at level FUNC. At every level, it writes a NUL into the last byte of the MAD's ServiceName.
void ats_sa_dump_service_record_mad(mad_t* sa_mad);

// ---- ats-sa-dtgrm: sent and received datagrams ----

// GSI's callbacks; the context is the port. They run in the HCA's completion context, one at a time.
void ats_sa_gsi_send_compl_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);
void ats_sa_gsi_recv_compl_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

// ---- ats-sa-ports: the active port, its registration, and port events ----

// Clears `resp_recv` and sends a Delete of the record that `sm_registered_gid` names. Returns 0 if the Delete was
// posted, otherwise -1.
int32_t ats_sa_send_delete(ats_context_t* ats);

// Sleeps until the SA has answered a Delete (`resp_recv`), a signal is pending or ATS_DELETE_WAIT_TICKS have passed.
void ats_sa_wait_for_delete_answer(ats_context_t* ats);

// Replaces the record at the SA. First deletes the record that `sm_registered_gid` names, with up to three tries, and
// ignores a failure. Then sets the record of the active port. The caller holds `ats_sem` and has checked that there is
// an active port. Returns 0 if the Set was posted, otherwise -1. May sleep.
int32_t ats_sa_set_new_sr(ats_context_t* ats);

// The callback for port events. The HCA's event thread calls it. May sleep.
void ats_async_event_cb(kq_event_record_st event_record);

// ---- ats-sa-lookup: Gets for IBAT, UCM and self-verification, and the request timer ----

// The request timer's function; `context` is the ats_context_t. Does not sleep.
void ats_req_timer_handler(unsigned long context);
