// The interface of IBAT, the IP-over-InfiniBand address translation module. IBAT keeps a cache of IPv4 addresses and
// their GIDs. Another module, the resolver, attaches itself to IBAT and asks the SA for the GIDs of addresses that are
// not in the cache. This file has the record of a resolution, its status codes, and the functions between IBAT and the
// resolver.
#pragma once

#include "ib-types.h"

enum ibat_stat_t : int32_t {
    ibat_stat_ok = 0,
    ibat_stat_pending = -253,   // the result comes later, through a callback
    ibat_stat_timeout = -254,   // no answer came in time
    ibat_stat_error = -255,     // the operation failed
    ibat_stat_not_found = -256, // no record was found, at the SA or in the cache
};

// A PathRecord in host order (IBA 15.2.5.16). IBAT stores the SA's answer in it.
struct ib_path_record_v2_t {
    uint32_t reserved0;
    uint32_t reserved1;
    kq_gid_t dgid;
    kq_gid_t sgid;
    kq_lid_t dlid;
    kq_lid_t slid;
    uint32_t hop_limut : 8;
    uint32_t flow_label : 20;
    uint32_t reserved3 : 3;
    uint32_t raw_traffic : 1;
    uint8_t traffic_class;
    uint8_t numb_path : 7;
    uint8_t reversible : 1;
    uint16_t pkey;
    uint16_t sl : 4;
    uint16_t reserved4 : 12;
    uint8_t mtu : 6;
    uint8_t mtu_selector : 2;
    uint8_t rate : 6;
    uint8_t rate_selector : 2;
    uint8_t pkt_life_time : 6;
    uint8_t pkt_life_time_selector : 2;
    uint8_t preference;
    uint8_t reserved2[6];
};
static_assert(sizeof(ib_path_record_v2_t) == 64);
static_assert(offsetof(ib_path_record_v2_t, dgid) == 8 && offsetof(ib_path_record_v2_t, sgid) == 24);
static_assert(offsetof(ib_path_record_v2_t, dlid) == 40 && offsetof(ib_path_record_v2_t, slid) == 42);
static_assert(offsetof(ib_path_record_v2_t, traffic_class) == 48 && offsetof(ib_path_record_v2_t, pkey) == 50);
static_assert(offsetof(ib_path_record_v2_t, preference) == 57 && offsetof(ib_path_record_v2_t, reserved2) == 58);

// Bits of ibat_arp_data_t::mask. Each of the first four bits says that one field of the record is valid.
constexpr uint32_t IBAT_MASK_SRC_IP = 0x1;
constexpr uint32_t IBAT_MASK_DST_IP = 0x2;
constexpr uint32_t IBAT_MASK_GID = 0x4;
constexpr uint32_t IBAT_MASK_LOCAL_PORT_NUM = 0x200;
constexpr uint32_t IBAT_MASK_STATIC = 0x8000; // the address is this host's own: the cache does not let it expire

constexpr uint16_t IBAT_ARP_REPLY = 2;

// The record of a resolution: a question, and later its answer. Separately built modules exchange pointers to it.
// Therefore its layout must not change.
struct ibat_arp_data {
    uint32_t mask;
    uint16_t arp_operation;
    uint32_t src_ip; // IPv4, network order
    uint32_t dst_ip; // IPv4, network order
    kq_gid_t gid;
    uint32_t qpn;
    uint8_t cap_flg;
    kq_lid_t lid;
    uint32_t qkey;
    ib_path_record_v2_t* primary_path;
    ib_path_record_v2_t* secondary_path;
    uint32_t local_port_num;
    int32_t paths_count;
    ib_path_record_v2_t paths[3];
    void* context;
};
using ibat_arp_data_t = ibat_arp_data;
static_assert(sizeof(ibat_arp_data_t) == 272);
static_assert(offsetof(ibat_arp_data_t, mask) == 0 && offsetof(ibat_arp_data_t, arp_operation) == 4);
static_assert(offsetof(ibat_arp_data_t, src_ip) == 8 && offsetof(ibat_arp_data_t, dst_ip) == 12);
static_assert(offsetof(ibat_arp_data_t, gid) == 16 && offsetof(ibat_arp_data_t, qpn) == 32);
static_assert(offsetof(ibat_arp_data_t, cap_flg) == 36 && offsetof(ibat_arp_data_t, lid) == 38);
static_assert(offsetof(ibat_arp_data_t, qkey) == 40 && offsetof(ibat_arp_data_t, primary_path) == 48);
static_assert(offsetof(ibat_arp_data_t, secondary_path) == 56 && offsetof(ibat_arp_data_t, local_port_num) == 64);
static_assert(offsetof(ibat_arp_data_t, paths_count) == 68 && offsetof(ibat_arp_data_t, paths) == 72);
static_assert(offsetof(ibat_arp_data_t, context) == 264);

// Finds the interface that owns an address. IBAT does not use it; a resolver passes null.
using get_if_info_fn_t = ibat_stat_t (*)(uint32_t ip, kq_p_key_t* p_key, uint32_t* qkey, int* hca, int* port);

// The resolver's function that asks the SA for the GID of `arp_data->dst_ip`. `context` is the argument of the attach
// call. IBAT passes 0 as `send_class_port_info`. Returns ibat_stat_ok if the request was sent; it does not wait for the
// answer. The resolver passes the answer to IBAT through ibat_process_arp_data_fn_t. May sleep.
using send_arp_data_fn_t = ibat_stat_t (*)(ibat_arp_data_t* arp_data, void* context, int send_class_port_info);

// IBAT publishes the next four functions under the names "ibat_attach_fn", "ibat_detach_fn", "ibat_process_arp_data_fn"
// and "ibat_seq_cache_lookup_fn". inter_module_get (kernel/module.h) finds them.

// Attaches a resolver. IBAT keeps `send_arp` and `context`, and stores a handle for ibat_detach_fn_t in `*handle`. It
// may call `send_arp` before this call returns. Returns ibat_stat_error if a resolver is attached already.
using ibat_attach_fn_t = ibat_stat_t (*)(get_if_info_fn_t get_if_info, send_arp_data_fn_t send_arp, void* context,
                                         void** handle);

// Ends the attachment. After the return, IBAT does not call `send_arp` any more. Returns ibat_stat_error if the handle
// is not that of the attachment. May sleep.
using ibat_detach_fn_t = ibat_stat_t (*)(void* handle);

// Passes an answer of the SA to IBAT in the form of an ARP reply: `src_ip` is the address that was asked for, `gid` its
// GID (all zero: the SA has no record), `dst_ip` the address of this host. IBAT copies the reply before it returns.
// Returns ibat_stat_error if the record is not a usable reply. Does not sleep.
using ibat_process_arp_data_fn_t = ibat_stat_t (*)(ibat_arp_data_t* arp_data);

// Searches the cache for a GID. On a hit, returns ibat_stat_ok and fills the record; the address is in `dst_ip`.
// Otherwise returns ibat_stat_not_found. Does not sleep.
using ibat_seq_cache_lookup_fn_t = ibat_stat_t (*)(kq_gid_t* gid, ibat_arp_data_t* arp_data);

// The callback that ends a resolution whose call has returned ibat_stat_pending. The record is valid only during the
// call.
using ibat_get_ib_data_reply_fn_t = void (*)(ibat_stat_t status, ibat_arp_data_t* arp_data, void* user_context);
