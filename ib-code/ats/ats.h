// The data and the internal functions of the module. The module translates between IPv4 addresses and GIDs: it asks the
// Subnet Administrator (SA), and it registers its own host's ServiceRecord there.
//
// `ats_cntx` has one context for each HCA. A context has up to two ports. At most one of them is the active port: the
// context sends every request through the active port. A context also has a list of pending requests. They ask for the
// address of a GID, and wait for the SA's answer.
//
// "Completion context" is the context in which GSI calls the module's callbacks (gsi.h). Each HCA has its own. A
// completion context runs one callback at a time, and callbacks must not sleep. Self-verification means that each
// context periodically asks the SA for its own address (ats-api-verify.cpp).
//
// The module stores and passes IPv4 addresses in network byte order and never converts them.
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
    ATS_PORT_DOWN = 0,   // link down, or no link-up event has come yet
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

// A host name, padded with NULs. A name of ATS_HOST_NAME_SIZE characters has no NUL.
struct ats_host_name_t {
    char text[ATS_HOST_NAME_SIZE];
};

struct ats_context_t;

// One port of an HCA. `state`, `port_attrib`, `port_gid` and `port_pkey` are written only with `ats_sem` held.
// `port_ipaddr` is also written without `ats_sem`. All five fields are also read without `ats_sem`, for example by
// sends and by reads of the control file.
struct ats_port_ctx_t {
    int32_t port_num; // from 1
    std::atomic<kq_p_key_t> port_pkey;
    shared_record<kq_gid_t> port_gid;
    std::atomic<uint32_t> port_ipaddr;
    shared_record<kq_port_attrib_t> port_attrib;
    gsi_class_handle_t gsi_handle; // null: not registered
    std::atomic<ats_port_state_t> state;
    std::atomic<uint64_t> gsi_tx_pkts; // completed sends; the HCA's completion context counts them
    std::atomic<uint64_t> gsi_rx_pkts; // received datagrams; the same context counts them
    ats_context_t* ats_context;
};

struct ats_context_t {
    // The functions of the modules IBAT and UCM. The context holds a reference on each function that is not null. Only
    // the first HCA's context has such functions.
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

    std::atomic<ats_port_ctx_t*> active_port;  // null: no active port; written only with `ats_sem` held
    shared_record<kq_gid_t> sm_registered_gid; // the next Delete names this GID
    int32_t num_of_hca_ports;                  // number of ports in use, at most ATS_PORTS_PER_HCA

    // 1 if the SA has answered a Delete since a task last cleared this field. It does not show which Delete. A task
    // clears the field before it sends a Delete and waits for the answer.
    std::atomic<int32_t> resp_recv;
    wait_queue_head_t delete_resp_wq;

    int32_t gsi_pool_size;
    ibat_arp_data_t rcv_arp_data; // the last reply; only the completion context uses it

    list_head rarp_reqs_pending; // oldest first
    spinlock_t rarp_reqs_lock;   // guards rarp_reqs_pending and ats_rarp_reqs_by_gid; not held during a callback

    shared_record<ats_host_name_t> host_name; // written only with `ats_sem` held
    // A task holds `ats_sem` while it handles a port event, changes the identity (host name or address) and registers
    // it, or sends a lookup. Self-verification sends its Set without `ats_sem`, because it runs in a context that may
    // not sleep.
    semaphore ats_sem;
    timing_t ats_req_timer;  // ends pending requests that get no answer
    timing_t timing_request; // starts the checks of self-verification
    kq_hca_h_t hca;          // written once, when the HCA is opened
    kq_hca_name hca_name;

    // Each flag is true while the context holds the resource; ats_sa_stop releases it. The GSI classes and the pool
    // have no flag: the context holds them while their handles are not null.
    bool holds_hca;
    bool holds_events;
    bool holds_req_timer;

    // Number of replies and time-outs that are being delivered to IBAT and to callbacks.
    std::atomic<uint32_t> deliveries;
    // Number of Sets so far, also of failed ones. If it changes during ats_sa_stop, ats_sa_stop deletes the records
    // again.
    std::atomic<uint32_t> sets_tried;
    // Number of Sets that self-verification is sending without `ats_sem`.
    std::atomic<uint32_t> restores_running;
};

// One request for the address of a GID. The completion context (after an answer) or the request timer takes the request
// off the pending list, calls the callback once, and frees the request. If the module stops first, it frees the request
// without a callback.
struct ats_rarp_req_t {
    list_head link;
    list_head found_list_link; // in ats_rarp_reqs_by_gid while pending, then in a list of the answered requests
    kq_gid_t dgid;
    ats_rarp_reply_fn_t user_cb;
    void* user_context;
    uint32_t timestamp; // low 32 bits of the tick count when the request was queued
};

// Returns one octet of an address. ATS_IP_ARGS gives the four octets as arguments for "%d.%d.%d.%d".
inline int ats_octet(uint32_t ip, int index)
{
    return reinterpret_cast<const uint8_t*>(&ip)[index];
}
#define ATS_IP_ARGS(ip) ats_octet(ip, 0), ats_octet(ip, 1), ats_octet(ip, 2), ats_octet(ip, 3)

extern ats_context_t ats_cntx[ATS_MAX_HCAS];
// The index of each context's `rarp_reqs_pending`: lists of requests by the hash of their GID, oldest first. The
// context's `rarp_reqs_lock` guards its lists.
extern list_head ats_rarp_reqs_by_gid[ATS_MAX_HCAS][ATS_RARP_BUCKETS];
extern int32_t ats_n_hcas; // number of contexts in use; zero or negative: none is in use

// The module parameters. The table in ats-module.cpp describes them.
extern const char* ats_ipaddr_str;
extern const char* ats_hostName_str;
extern int32_t ats_attach_ibat;

// ---- ats-module ----

// Returns the context of an open HCA, or null.
ats_context_t* ats_find_context(kq_hca_h_t hca);

// These functions change the host's name or address on every HCA in turn. They stop at the first failure and return -1;
// otherwise they return 0. A null name, a null text and a text without an address are failures. May sleep.
MODULE_EXPORT int32_t ats_sa_set_hostname(const char* host_name);
MODULE_EXPORT int32_t ats_sa_set_ip_addrs(uint32_t port_ipaddr);
MODULE_EXPORT int32_t ats_sa_set_ip_addrs_str(const char* ip_add_str);

// ---- ats-api ----

// Starts a context; its `hca_name` must be set. With `sa_only`, starts only the SA client, without IBAT and UCM.
// `attach_ibat` is the module parameter ats_attach_ibat. Returns 0. Returns a negative value if the SA client or the
// connection to IBAT does not start; the caller then calls ats_stop, which releases everything. A failure of UCM is
// only logged. May sleep.
int32_t ats_init(ats_context_t* ats, int32_t attach_ibat, int32_t sa_only);

// Stops every context. Skips contexts that were not started. May sleep.
void ats_stop();

// Passes the decoded reply in `rcv_arp_data` to IBAT and to the pending requests for its GID. Ignores a reply with
// common status bits. `mad_stat` is the MAD's status in host order. Completion context only.
void ats_process_sa_reply(uint16_t mad_stat, ats_context_t* ats);

// Start and end the self-verification of the first `n_hcas` contexts. After end_verification returns, no timer starts a
// check. The answer to an earlier check, or its time-out, may still come and cause a Set. Both functions may sleep.
void start_verification(int32_t n_hcas);
void end_verification(int32_t n_hcas);

// The handlers of the control file.
write_proc_t ats_proc_write;
read_proc_t ats_proc_read;

// Each function has one buffer for each thread, and returns a text in this buffer. The next call of the same function
// in the same thread overwrites the text.
const char* print_ibat_stat(ibat_stat_t stat);
const char* print_ipaddr(uint32_t addr);

// ---- ats-sa ----

// Opens the HCA, registers with GSI, and subscribes to port events. The call itself sends nothing: the first link-up
// event makes the HCA's event thread register the host. Returns 0. Returns -1 on failure; the caller then calls
// ats_sa_stop, which releases everything. May sleep.
int32_t ats_sa_init(ats_context_t* ats);

// Sends Deletes of the records of all ports if a port is active, and releases everything that ats_sa_init has taken.
// Does nothing if the HCA is not open. May sleep.
void ats_sa_stop(ats_context_t* ats);

// Posts one request to the SA through the active port: a Set if `is_set`, otherwise a Get (a GetTable with `is_table`)
// if `is_get`, otherwise a Delete. `arp_data` is the query of a Get. Returns 0 if the request was posted, otherwise -1.
// The completion context receives the SA's answer, if any. Takes no lock of the module, does not sleep, does not call
// kmalloc.
int32_t ats_sa_send_service_rec_set_get_del_mad(ats_context_t* ats, ats_sa_op_t op, const ibat_arp_data_t* arp_data,
                                                uint8_t is_set, uint8_t is_get, uint8_t is_table);

// The three requests that the module sends, with the results and contexts of the function above. A Set registers the
// active port's record. A Get asks for the record of an address (`op` is ATS_GET_SR_ARP_OP) or of a GID
// (ATS_GET_SR_RARP_OP). A Delete removes the record that `sm_registered_gid` names.
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

// Sleeps until `deliveries` is zero: no reply and no time-out is being delivered.
void ats_wait_for_deliveries(ats_context_t* ats);

// Frees every pending request without a callback, and waits for callbacks that are running. The caller makes sure that
// no new request can come. After the return, no callback of a request runs. May sleep.
void ats_sa_drop_pending_requests(ats_context_t* ats);

// ats_sa_arp_send asks the SA for the record of `arp_data->dst_ip`, ats_sa_rarp_send for the record of `arp_data->gid`.
// Both return 0 if the request was posted. They return -1 if there is no active port, if a signal ended the wait for
// `ats_sem`, or if the send failed. May sleep. The caller must not hold `ats_sem`.
int32_t ats_sa_arp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data);
int32_t ats_sa_rarp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data);

// These functions change the host name or the address of one context. If a port is active, they delete the record at
// the SA and post a Set with the new value. Otherwise the context registers the new value when a port becomes active.
// They return 0. They return -1 if the name is null, if a signal ended the wait for `ats_sem`, or if the Set could not
// be posted. An address is stored in all cases. A name is not stored in the first two cases. May sleep. The caller must
// not hold `ats_sem`.
int32_t ats_sa_update_hostname(ats_context_t* ats, const char* host_name);
int32_t ats_sa_update_ip_addrs(ats_context_t* ats, uint32_t port_ipaddr);

// Sleeps while self-verification sends a Set. Call it after a change of the active port or of the identity, and before
// the Delete or the Set that follows from the change. After the return, no Set with the old values is sent.
void ats_sa_wait_for_restores(ats_context_t* ats);

// ---- ats-misc ----

// Reads four decimal numbers that are separated by points. Ignores other text after each number. A field that does
// not begin with a digit is 0, and a number over 255 is cut to its low 8 bits. Returns ibat_stat_ok. Returns
// ibat_stat_error, without a change of `*ip`, if the text is too long, has fewer than four fields, or has a number
// whose low 32 bits are all ones, such as 4294967295.
ibat_stat_t ats_parseipstr(const char* s, uint32_t* ip);

// Reads "0x" and up to 32 hexadecimal digits. May overwrite the "x" of `s`. Returns ibat_stat_ok. Returns
// ibat_stat_error if the text has another form; the value of `*gid` is then undefined.
ibat_stat_t ats_parsegidstr(char* s, kq_gid_t* gid);

const char* ats_port_state2str(ats_port_state_t state);
