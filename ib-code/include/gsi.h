// The GSI layer: sends and receives management datagrams (MADs) through QP1 of every port (IBA volume 1, 13.5). A
// client registers for a management class on a port, takes datagrams from a pool, and posts them. GSI calls the
// client's callbacks for sent datagrams and for received responses.
#pragma once

#include "kernel/export.h"
#include "mad.h"
#include "verbs.h"

struct gsi_class_t;
struct gsi_dtgrm_pool_t;
using gsi_class_handle_t = gsi_class_t*;
using gsi_dtgrm_pool_handle_t = gsi_dtgrm_pool_t*;

// One datagram with its remote address. GSI and its clients exchange pointers to it. GSI and the clients are separately
// built binaries: the record is packed, so that all of them have the same layout.
struct __attribute__((packed)) gsi_dtgrm_t {
    uint8_t priv[104]; // for the GSI layer only
    uint8_t mad[MAD_SIZE];
    uint8_t cache_pad[24];
    void* rmpp_payload;
    int32_t rmpp_payload_size;
    void* rmpp_context;
    int32_t rmpp_dir_switch_needed;
    // The remote address: the destination of a datagram to send, the source of a received one. All fields are in host
    // order.
    uint32_t rqp;     // QP number
    uint32_t rqk;     // Q_Key; for 0, GSI sends with the Q_Key of QP1
    uint16_t rlid;    // LID
    uint8_t sl;       // service level
    int32_t pkey_idx; // index in the local port's P_Key table; gsi_dtgrm_pool_get sets it to 0
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

// A client's callback for one sent or received datagram. GSI calls it in the HCA's completion context: one callback of
// an HCA at a time, in the order of the datagrams. The callback must not sleep. With the call, the client becomes the
// owner of the datagram, and later returns it with gsi_dtgrm_pool_put.
using gsi_completion_fn_t = void (*)(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

// All calls below that return int return 0 on success and a negative error number (kernel/errno.h) on failure.

// Registers a client for one management class on one port. Fails if another client has registered for the same class
// and port. `redirection` and `rmpp` must be 0 (off). `receive_callback` gets the responses of the class that arrive on
// the port, except the answers to clients that have joined the class. `context` is passed to both callbacks. GSI stores
// `*handle` before it calls a callback; the first callback may come before this call returns. May sleep.
KERNEL_API int gsi_register_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                                  int redirection, int rmpp, gsi_completion_fn_t send_callback,
                                  gsi_completion_fn_t receive_callback, void* context, gsi_class_handle_t* handle);

// Joins a class on one port. Another client may be registered for the same class and port. The joining client gets only
// the answers to its own requests. It writes a TransactionID into each datagram. GSI keeps the low 24 bits and replaces
// the high bits. The low 24 bits must differ between the client's requests in flight. In an answer, the low 24 bits are
// those of the request, so the client recognises the request. Fails if 127 clients have joined the class on this port
// already. The arguments and the result are otherwise those of gsi_register_class. May sleep.
constexpr uint64_t gsi_joined_transaction_bits = 0xFFFFFF;
KERNEL_API int gsi_join_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                              gsi_completion_fn_t send_callback, gsi_completion_fn_t receive_callback, void* context,
                              gsi_class_handle_t* handle);

// Ends a registration of either kind. Fails, and changes nothing, while a datagram of this client is being sent or
// delivered, or while one of its callbacks runs. The caller then tries again later. After success, no callback of this
// client runs. May sleep. In a callback of this client, the call only fails, and does not sleep.
KERNEL_API int gsi_deregister_class(gsi_class_handle_t handle);

// Creates a pool of `size` datagrams and stores it in `*pool`. Error messages show `name`. May sleep.
KERNEL_API int gsi_dtgrm_pool_create_named(int32_t size, gsi_dtgrm_pool_handle_t* pool, const char* name);

// Destroys a pool. If a datagram was not returned to the pool, this is a hard error (the program ends); the message
// shows the history of the datagram. May sleep.
KERNEL_API int gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool);

// Takes one free datagram and stores it in `*dtgrm`. Fails if no datagram is free. Allocates nothing. Any context.
KERNEL_API int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm);

// Returns a datagram to its pool. Any context. Returning it twice is a hard error.
KERNEL_API void gsi_dtgrm_pool_put(gsi_dtgrm_t* dtgrm);

// Sends the datagram's MAD. GSI assigns the TransactionID (see also gsi_join_class). On success, GSI stores it in host
// order in `*transaction_id`, unless the pointer is null, and owns the datagram until it calls the client's send
// callback, which may happen before this call returns. On failure, the caller still owns the datagram. Does not call
// kmalloc. Any context.
KERNEL_API int gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm, uint64_t* transaction_id);
