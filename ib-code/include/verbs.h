// The verbs layer (IBA volume 1, chapter 11): lists and opens HCAs, reads the attributes of their ports, and reports
// port events to subscribers.
#pragma once

#include "ib-types.h"
#include "kernel/export.h"

enum kq_return_t : int32_t {
    kq_return_ok = 0,
    kq_return_err_general = -176,
    kq_return_err_invalid_hca = -177,  // no HCA has this name, or the handle was closed
    kq_return_err_invalid_port = -178, // the HCA has no port with this number
    kq_return_err_busy = -179,         // the handle has a subscription to events
};

struct kq_hca;
using kq_hca_h_t = kq_hca*;

struct kq_hca_name {
    char name[100]; // NUL-terminated
};

struct kq_hca_attrib_t {
    uint8_t port_num; // number of ports of the HCA
};

enum kq_mtu_t : int32_t {
    kq_mtu_256 = 1,
    kq_mtu_512 = 2,
    kq_mtu_1024 = 3,
    kq_mtu_2048 = 4,
    kq_mtu_4096 = 5,
};

enum kq_port_state_t : int32_t {
    kq_state_linkNoChange = 0,
    kq_state_linkDoun = 1,
    kq_state_linkInit = 2,
    kq_state_linkArm = 3,
    kq_state_linkActive = 4,
    kq_state_linkActDefer = 5,
};

using kq_port_cap_mask_t = uint32_t;

struct kq_sm_address_info_t {
    uint8_t port_num;
    kq_lid_t sm_lid;
    uint8_t service_level;
};

struct kq_port_attrib_t {
    kq_port_num_t port_num;
    kq_mtu_t port_mtu;
    uint32_t port_message_size;
    kq_port_state_t port_state;
    kq_lid_t port_base_lid;
    uint32_t port_lmc;
    uint32_t port_sgid_table_size;
    uint32_t port_parti_table_size;
    uint8_t port_max_vl_num;
    uint32_t port_bad_p_key_count;
    uint32_t port_bad_q_key_count;
    kq_sm_address_info_t port_sma_address_info;
    kq_port_cap_mask_t port_capability_support;
};

// The kinds of events, one bit for each. This stack reports only link up, link down and SM change.
enum kq_async_record_t : uint32_t {
    kq_async_r_path_migrated_ev = 0x1,
    kq_async_r_com_est_ev = 0x2,
    kq_async_r_send_q_drained_ev = 0x4,
    kq_async_r_l_wq_err = 0x8,
    kq_async_r_path_migrated_err = 0x10,
    kq_async_r_eec_path_migrated_ev = 0x20,
    kq_async_r_eec_com_est_ev = 0x40,
    kq_async_r_l_eec_err = 0x80,
    kq_async_r_cq_err = 0x100,
    kq_async_r_l_err = 0x200,
    kq_async_r_port = 0x400,
    kq_async_r_port_link = 0x800,
    kq_async_r_port_mtu = 0x1000,
    kq_async_r_port_lid = 0x2000,
    kq_async_r_port_pkey_in = 0x4000,
    kq_async_r_port_pkey_out = 0x8000,
    kq_async_r_port_link_up = 0x10000,
    kq_async_r_port_link_down = 0x20000,
    kq_async_r_port_sm_change = 0x40000,
    kq_async_r_gid_in = 0x80000,
    kq_async_r_gid_out = 0x100000,
    kq_async_r_mc_group_create = 0x200000,
    kq_async_r_mc_group_delete = 0x400000,
};

union type_ev_re_un {
    struct {
        void* qp_h;
        uint32_t qp_num;
        void* context;
    } qp;
    struct {
        void* cq_h;
        void* context;
    } cq;
    struct {
        void* eec_h;
        void* context;
    } eec;
    kq_gid_t gid;
    uint64_t data; // for kq_async_r_port_sm_change: the LID of the new SM
};

struct kq_event_record_st {
    kq_async_record_t event_type;
    kq_hca_h_t hca_app_h;
    type_ev_re_un type;
    uint8_t port_num; // from 1
};
static_assert(sizeof(kq_event_record_st) == 48 && sizeof(type_ev_re_un) == 24);
static_assert(offsetof(kq_event_record_st, event_type) == 0 && offsetof(kq_event_record_st, hca_app_h) == 8);
static_assert(offsetof(kq_event_record_st, type) == 16 && offsetof(kq_event_record_st, port_num) == 40);

enum kq_request_async_record_t : int32_t {
    kq_async_even_all = 16, // every kind of event of the HCA
};

struct kq_request_event_record_t {
    kq_request_async_record_t req_event_type;
    void* type; // unused for kq_async_even_all
};

// A subscriber's callback. The HCA's event thread calls it, for one event at a time. The callback may sleep.
using kq_async_event_fn_t = void (*)(kq_event_record_st event_record);

// All calls below may sleep.

// Stores the names of the HCAs of this host in `names`, at most `capacity` of them. Returns the number of stored names,
// or a negative kq_return_t.
KERNEL_API int kq_list_hcas(kq_hca_name* names, int capacity);

// Opens an HCA and stores its handle in `*hca`. `flags` must be 0: others may open the HCA, too. The caller closes the
// handle.
KERNEL_API kq_return_t kq_hca_open(const kq_hca_name* name, int flags, kq_hca_h_t* hca);

// Closes a handle. Returns kq_return_err_busy while the handle has a subscription.
KERNEL_API kq_return_t kq_hca_close(kq_hca_h_t hca);

// kq_hca_query stores the number of ports of the HCA. kq_port_query stores the attributes that the port has at the
// moment of the call.
KERNEL_API kq_return_t kq_hca_query(kq_hca_h_t hca, kq_hca_attrib_t* attributes);
KERNEL_API kq_return_t kq_port_query(kq_hca_h_t hca, kq_port_num_t port, kq_port_attrib_t* attributes);

// Copy the first entries of the port's GID table or P_Key table. The caller sets `*count` to the capacity of the array;
// the call sets it to the number of copied entries.
KERNEL_API kq_return_t kq_get_port_gid_tbl(kq_hca_h_t hca, kq_port_num_t port, int* count, kq_gid_t* gids);
KERNEL_API kq_return_t kq_get_port_partition_tbl(kq_hca_h_t hca, kq_port_num_t port, int* count, kq_p_key_t* p_keys);

// Subscribes to the HCA's events. A handle has at most one subscription; the call returns kq_return_err_busy for a
// second one. For every port that is active already, the event thread reports a link-up event at once.
KERNEL_API kq_return_t kq_set_sleepable_async_event_cb(kq_hca_h_t hca, const kq_request_event_record_t* request,
                                                       kq_async_event_fn_t callback);

// Ends the subscription. After the return, the callback does not run. The callback itself must not call this.
KERNEL_API kq_return_t kq_dell_sleepable_async_event_cb(kq_hca_h_t hca, kq_async_event_fn_t callback);
