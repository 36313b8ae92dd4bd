// The GSI layer: management datagrams to and from QP1 of every port (IBA volume 1, 13.5).
#pragma once

#include "kernel/export.h"
#include "mad.h"
#include "verbs.h"

struct gsi_class_t;
struct gsi_dtgrm_pool_t;
using gsi_class_handle_t = gsi_class_t*;
using gsi_dtgrm_pool_handle_t = gsi_dtgrm_pool_t*;

// One datagram, exchanged between the GSI layer and its clients. Packed: separately built binaries share the layout.
struct __attribute__((packed)) gsi_dtgrm_t {
    uint8_t priv[104]; // for the GSI layer only
    uint8_t mad[MAD_SIZE];
    uint8_t cache_pad[24];
    void* rmpp_payload;
    int32_t rmpp_payload_size;
    void* rmpp_context;
    int32_t rmpp_dir_switch_needed;
    uint32_t rqp;     // remote QP number, in host order like all following fields
    uint32_t rqk;     // remote Q_Key; the GSI layer replaces 0 with that of QP1
    uint16_t rlid;    // remote LID
    uint8_t sl;       // service level
    int32_t pkey_idx; // P_Key table index; the pool sets 0, the index of the P_Key that clients advertise
    uint64_t guid;
    uint8_t path_bits;
    uint8_t static_rate;
    uint8_t is_marked_for_release; // for the GSI layer only
    uint8_t is_in_use;             // for the GSI layer only
};
static_assert(sizeof(gsi_dtgrm_t) == 435);
static_assert(offsetof(gsi_dtgrm_t, priv) == 0 && offsetof(gsi_dtgrm_t, mad) == 104);
static_assert(offsetof(gsi_dtgrm_t, cache_pad) == 360 && offsetof(gsi_dtgrm_t, rmpp_payload) == 384);
static_assert(offsetof(gsi_dtgrm_t, rmpp_payload_size) == 392 && offsetof(gsi_dtgrm_t, rmpp_context) == 396);
static_assert(offsetof(gsi_dtgrm_t, rmpp_dir_switch_needed) == 404 && offsetof(gsi_dtgrm_t, rqp) == 408);
static_assert(offsetof(gsi_dtgrm_t, rqk) == 412 && offsetof(gsi_dtgrm_t, rlid) == 416);
static_assert(offsetof(gsi_dtgrm_t, sl) == 418 && offsetof(gsi_dtgrm_t, pkey_idx) == 419);
static_assert(offsetof(gsi_dtgrm_t, guid) == 423 && offsetof(gsi_dtgrm_t, path_bits) == 431);
static_assert(offsetof(gsi_dtgrm_t, static_rate) == 432 && offsetof(gsi_dtgrm_t, is_marked_for_release) == 433);
static_assert(offsetof(gsi_dtgrm_t, is_in_use) == 434);

// Called in the HCA's completion context: one completion of an HCA at a time, in order; must not sleep. The callee then
// owns the datagram and returns it with gsi_dtgrm_pool_put.
using gsi_completion_fn_t = void (*)(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

// All calls that return int return 0 on success and a negative number on failure.

// Registers a client for one management class on one port. The two int arguments after the port switch on redirection
// and RMPP; 0 means off. `receive_callback` gets the responses of the class that arrive on the port. A callback may
// come before the call returns; the handle is stored before the first callback.
KERNEL_API int gsi_register_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                                  int redirection, int rmpp, gsi_completion_fn_t send_callback,
                                  gsi_completion_fn_t receive_callback, void* context, gsi_class_handle_t* handle);

// Joins a class on one port. Another client may have registered the class. The new client sends its own requests and
// gets only the answers to these. The client writes a TransactionID into each datagram. GSI keeps the low 24 bits and
// sets the high bits. The low 24 bits must differ between the client's requests in flight. An answer has the
// TransactionID of its request. The rest is as in gsi_register_class.
constexpr uint64_t gsi_joined_transaction_bits = 0xFFFFFF;
KERNEL_API int gsi_join_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                              gsi_completion_fn_t send_callback, gsi_completion_fn_t receive_callback, void* context,
                              gsi_class_handle_t* handle);

// Ends a registration of either kind. Fails, and changes nothing, while a datagram of the class is in flight or a
// callback of it runs. The caller then tries again later. After success no callback of the class runs.
KERNEL_API int gsi_deregister_class(gsi_class_handle_t handle);

// Creates a pool of `size` datagrams. Reports show its name. May sleep.
KERNEL_API int gsi_dtgrm_pool_create_named(int32_t size, gsi_dtgrm_pool_handle_t* pool, const char* name);

// Destroys a pool. It is a hard error if a datagram was not returned; the message shows the history of that datagram.
// May sleep.
KERNEL_API int gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool);

// Takes one free datagram. Fails if none is free. Allocates nothing. Any context.
KERNEL_API int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm);

// Returns a datagram to its pool. Any context. Returning it twice is a hard error.
KERNEL_API void gsi_dtgrm_pool_put(gsi_dtgrm_t* dtgrm);

// Queues the datagram's MAD for sending and assigns its TransactionID (see gsi_join_class). Stores the TransactionID
// (host order) in `transaction_id` unless null. On success, the GSI layer owns the datagram until it calls
// `send_callback`. On failure, the caller still owns it. Any context; allocates nothing.
KERNEL_API int gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm, uint64_t* transaction_id);
