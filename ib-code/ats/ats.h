// The module's model: a static table with one context for each HCA. A context has two ports and a list of requests that
// wait for an answer of the Subnet Administrator (SA). One port is active: the context registers its ServiceRecord and
// sends every request through it.
//
// IPv4 addresses are always in network byte order: their octets in memory order, never converted.
#pragma once

#include <atomic>
#include <cassert>

#include "devucm-exports.h"
#include "gsi.h"
#include "kernel/list.h"
#include "kernel/module.h"
#include "kernel/proc.h"
#include "kernel/shared-record.h"
#include "kernel/sync.h"
#include "sa-mads.h"
#include "timing.h"
#include "verbs.h"

constexpr int32_t ATS_MAX_HCAS = 32;
constexpr int32_t ATS_PORTS_PER_HCA = 2;
constexpr size_t ATS_HOST_NAME_SIZE = 30;
constexpr size_t ATS_RARP_BUCKETS = 256;
constexpr unsigned long ATS_REQ_TIMER_PERIOD_TICKS = 1000;
constexpr unsigned long ATS_REQ_AGE_LIMIT_TICKS = 1000;

enum ats_port_state_t : int32_t {
    ATS_PORT_DOWN = 0,   // link down, or not reported up yet
    ATS_PORT_UP = 1,     // link up: a standby port
    ATS_PORT_ACTIVE = 2, // the context's one active port
};

// The requests to the SA.
enum ats_sa_op_t : uint32_t {
    ATS_SET_SR_OP = 0xF00D,
    ATS_DEL_SR_OP = 0xBEEF,
    ATS_GET_SR_ARP_OP = 0xBEEC,  // the record of an IPv4 address
    ATS_GET_SR_RARP_OP = 0xEEEB, // the record of a GID
};

// Padded with NULs; a name of the full length has none.
struct ats_host_name_t {
    char text[ATS_HOST_NAME_SIZE];
};

struct ats_context_t;

// A writer of `state`, `port_attrib`, `port_gid` and `port_pkey` holds `ats_sem`. A writer of `port_ipaddr` need not.
// Sends and reports may read all of them at any moment.
struct ats_port_ctx_t {
    int32_t port_num; // from 1
    std::atomic<kq_p_key_t> port_pkey;
    shared_record<kq_gid_t> port_gid;
    std::atomic<uint32_t> port_ipaddr;
    shared_record<kq_port_attrib_t> port_attrib;
    gsi_class_handle_t gsi_handle; // null: not registered
    std::atomic<ats_port_state_t> state;
    std::atomic<uint64_t> gsi_tx_pkts; // completions, counted by the HCA's completion context
    std::atomic<uint64_t> gsi_rx_pkts;
    ats_context_t* ats_context;
};

struct ats_context_t {
    // The bindings to IBAT and UCM. A function is null if there is no reference on it. Only the first HCA's context has
    // bindings.
    void* ibat_handle;
    ibat_attach_fn_t ibat_attach;
    ibat_detach_fn_t ibat_detach;
    std::atomic<ibat_process_arp_data_fn_t> ibat_process_arp_data; // called by the completion context
    ibat_seq_cache_lookup_fn_t ibat_seq_cache_lookup;
    void* ucm_rarp_handle;
    ucm_rarp_attach_fn_t ucm_rarp_attach;
    ucm_rarp_detach_fn_t ucm_rarp_detach;

    uint64_t service_id; // host order
    gsi_dtgrm_pool_handle_t pool_handle;
    ats_port_ctx_t ib_ports[ATS_PORTS_PER_HCA]; // index i is port i + 1

    std::atomic<ats_port_ctx_t*> active_port;  // null if none; written with `ats_sem` held; a send reads it once
    shared_record<kq_gid_t> sm_registered_gid; // the next Delete names this GID
    int32_t num_of_hca_ports;                  // used ports: at most ATS_PORTS_PER_HCA

    // Set when the SA answers any task's Delete. A task clears it before it waits.
    std::atomic<int32_t> resp_recv;
    wait_queue_head_t delete_resp_wq;

    int32_t gsi_pool_size;
    ibat_arp_data_t rcv_arp_data; // the last reply; only the completion context uses it

    list_head rarp_reqs_pending; // oldest first
    spinlock_t rarp_reqs_lock;   // guards that list and its index; no callback runs under it

    shared_record<ats_host_name_t> host_name; // written with `ats_sem` held
    semaphore ats_sem; // guards port states, the active port, registration and the sending of lookups
    timing_t ats_req_timer;
    timing_t timing_request; // self-verification
    kq_hca_h_t hca;          // written once, when it is opened
    kq_hca_name hca_name;

    // Resources that ats_sa_stop must release. A class and the pool are held while their handles are not null.
    bool holds_hca;
    bool holds_events;
    bool holds_req_timer;

    std::atomic<uint32_t> deliveries;       // replies and time-outs that are being delivered to IBAT and to callbacks
    std::atomic<uint32_t> sets_tried;       // number of Sets; tells ats_sa_stop if a Set came after its Deletes
    std::atomic<uint32_t> restores_running; // Sets that self-verification is sending without `ats_sem`
};

// One request for the address of a GID. It stays on the pending list until an answer or the request timer takes it off.
// The code that takes it off calls back once and frees it.
struct ats_rarp_req_t {
    list_head link;
    list_head found_list_link; // while pending, in the index; later in the list of requests with the answered GID
    kq_gid_t dgid;
    ats_rarp_reply_fn_t user_cb;
    void* user_context;
    uint32_t timestamp; // low 32 bits of the tick count when it was queued
};

// The octets of an address, as arguments for "%d.%d.%d.%d".
inline int ats_octet(uint32_t ip, int index)
{
    return reinterpret_cast<const uint8_t*>(&ip)[index];
}
#define ATS_IP_ARGS(ip) ats_octet(ip, 0), ats_octet(ip, 1), ats_octet(ip, 2), ats_octet(ip, 3)

extern ats_context_t ats_cntx[ATS_MAX_HCAS];
// The index of each context's `rarp_reqs_pending`: lists of requests by the hash of their GID, oldest first.
extern list_head ats_rarp_reqs_by_gid[ATS_MAX_HCAS][ATS_RARP_BUCKETS];
extern int32_t ats_n_hcas; // contexts in use; zero or negative: none

// The module parameters.
extern const char* ats_ipaddr_str;
extern const char* ats_hostName_str;
extern int32_t ats_attach_ibat;

// ---- ats-module ----

// The context of an open HCA, or null.
ats_context_t* ats_find_context(kq_hca_h_t hca);

// Change the advertised identity on every HCA in turn. Stop at the first failure and return -1; otherwise return 0. A
// null name, a null text and a text without an address are failures. May sleep.
MODULE_EXPORT int32_t ats_sa_set_hostname(const char* host_name);
MODULE_EXPORT int32_t ats_sa_set_ip_addrs(uint32_t port_ipaddr);
MODULE_EXPORT int32_t ats_sa_set_ip_addrs_str(const char* ip_add_str);

// ---- ats-api ----

// Starts a context; its `hca_name` must be set. With `sa_only`, starts only the SA client, without IBAT and UCM.
// Returns 0, or a negative value; ats_stop then releases the rest.
int32_t ats_init(ats_context_t* ats, int32_t attach_ibat, int32_t sa_only);

// Stops every context. Skips one that was never started. May sleep.
void ats_stop();

// Passes the decoded reply in `rcv_arp_data` to IBAT and to the requests waiting for its GID. `mad_stat` is the MAD's
// status in host order. Completion context only.
void ats_process_sa_reply(uint16_t mad_stat, ats_context_t* ats);

// Self-verification of the first `n_hcas` contexts. After end_verification returns, no check runs.
void start_verification(int32_t n_hcas);
void end_verification(int32_t n_hcas);

// The handlers of the control file.
write_proc_t ats_proc_write;
read_proc_t ats_proc_read;

// Each function returns a text in a buffer of the calling thread. The next call overwrites it.
const char* print_ibat_stat(ibat_stat_t stat);
const char* print_ipaddr(uint32_t addr);

// ---- ats-sa ----

// Opens the HCA and registers everything that the SA client needs; sends nothing. Returns 0, or -1; ats_sa_stop then
// releases the rest. May sleep.
int32_t ats_sa_init(ats_context_t* ats);

// Deletes the record at the SA and releases everything the context holds. May sleep.
void ats_sa_stop(ats_context_t* ats);

// Posts one request to the SA through the active port. Returns 0 if it was posted, otherwise -1. The completion context
// receives the SA's answer, if any. Takes no lock, does not sleep, allocates nothing. `arp_data` is the query of a Get.
int32_t ats_sa_send_service_rec_set_get_del_mad(ats_context_t* ats, ats_sa_op_t op, const ibat_arp_data_t* arp_data,
                                                uint8_t is_set, uint8_t is_get, uint8_t is_table);

// The requests of the module. A Set registers the active port's record. The Get of a lookup has `op` ATS_GET_SR_ARP_OP
// or ATS_GET_SR_RARP_OP. A Delete removes the record that `sm_registered_gid` names.
inline int32_t ats_sa_post_set(ats_context_t* ats)
{
    return ats_sa_send_service_rec_set_get_del_mad(ats, ATS_SET_SR_OP, nullptr, 1, 0, 0);
}
inline int32_t ats_sa_post_get(ats_context_t* ats, ats_sa_op_t op, const ibat_arp_data_t* query)
{
    assert(op == ATS_GET_SR_ARP_OP || op == ATS_GET_SR_RARP_OP);
    return ats_sa_send_service_rec_set_get_del_mad(ats, op, query, 0, 1, 0);
}
inline int32_t ats_sa_post_delete(ats_context_t* ats)
{
    return ats_sa_send_service_rec_set_get_del_mad(ats, ATS_DEL_SR_OP, nullptr, 0, 0, 0);
}

// Sleeps until no delivery is running.
void ats_wait_for_deliveries(ats_context_t* ats);

// Frees every pending request without a callback. The caller makes sure that no new request can come. After the return
// no callback of a request runs. May sleep.
void ats_sa_drop_pending_requests(ats_context_t* ats);

// Ask for the record of `arp_data->dst_ip`, or of `arp_data->gid`. Return 0 if posted. Return -1 if there is no active
// port, a signal came or the send failed. May sleep; `ats_sem` must not be held.
int32_t ats_sa_arp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data);
int32_t ats_sa_rarp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data);

// Change the identity of one context. If a port is active, register it again at once, otherwise when a port becomes
// active. Return 0. Return -1 if a signal came, the name is null, or the Set could not be sent; in the last case, the
// new value is kept. May sleep; `ats_sem` must not be held.
int32_t ats_sa_update_hostname(ats_context_t* ats, const char* host_name);
int32_t ats_sa_update_ip_addrs(ats_context_t* ats, uint32_t port_ipaddr);

// Sleeps until self-verification is not sending a Set. The caller has just changed the active port or the identity. A
// Set that was started earlier may contain the old value; a Set that starts later contains the new one.
void ats_sa_wait_for_restores(ats_context_t* ats);

// ---- ats-misc ----

// Reads four decimal numbers between points; ignores other text after each number. Returns ibat_stat_ok, or
// ibat_stat_error without a change of `*ip`.
ibat_stat_t ats_parseipstr(const char* s, uint32_t* ip);

// Reads "0x" and up to 32 hexadecimal digits. Returns ibat_stat_ok or ibat_stat_error. May overwrite the "x" of `s`.
ibat_stat_t ats_parsegidstr(char* s, kq_gid_t* gid);

const char* ats_port_state2str(ats_port_state_t state);
