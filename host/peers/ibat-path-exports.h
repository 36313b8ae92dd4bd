// IBAT's functions for modules that need paths. A path leads from the host's active port to the port with a GID. IBAT
// asks the SA for the PathRecord (SubnAdmGet, IBA 15.2.5.16) and keeps it in a cache for a limited time. IBAT drops its
// paths when the link, the LID or the SM of the active port changes. If several callers ask for the same GID, IBAT
// sends one request for all of them.
//
// A record that comes with ibat_stat_ok has these fields: `gid` is the destination. `local_port_num` is the port on
// which the path begins. `paths[0]` is the path in host order, `primary_path` points to it, and `paths_count` is 1.
// `mask` contains IBAT_MASK_GID and IBAT_MASK_LOCAL_PORT_NUM.
#pragma once

#include "ibat.h"

// Statuses for paths, in addition to those of ibat.h.
constexpr auto ibat_stat_no_port = static_cast<ibat_stat_t>(-257); // the host has no active port
constexpr auto ibat_stat_no_path = static_cast<ibat_stat_t>(-258); // the SA has no such path
constexpr auto ibat_stat_refused = static_cast<ibat_stat_t>(-259); // the SA refused the request

// Published as "ibat_get_path_fn": finds the path to the port with this GID. May sleep.
//
// ibat_stat_ok: the cache has the path, and `arp_data` is filled.
// ibat_stat_pending: exactly one callback follows, unless the request is cancelled first. The callback may come before
// this call returns.
// ibat_stat_no_port: there is no active port.
// ibat_stat_error: memory ran out, GSI or verbs refused to serve IBAT, the GID is zero, or a pointer other than
// `user_context` is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function of this file, but must not
// cancel itself with ibat_cancel_path_fn. The status in the callback is ibat_stat_ok, ibat_stat_no_path,
// ibat_stat_refused, ibat_stat_timeout (no attempt got a final answer), ibat_stat_no_port (the port went down) or
// ibat_stat_error (no attempt could be sent, or IBAT is being unloaded). The record in the callback is never null and
// always has the GID.
using ibat_get_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data,
                                           ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_refresh_path_fn": does the same as ibat_get_path_fn, but ignores the cache and always asks the SA.
// The SA's answer replaces the path in the cache.
using ibat_refresh_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_get_ib_data_reply_fn_t user_cb,
                                               void* user_context);

// Published as "ibat_cached_path_fn": searches only the cache. ibat_stat_ok: `arp_data` is filled, and a lookup and a
// hit are counted. ibat_stat_error: the cache does not have the path, or a pointer is null. Any context.
using ibat_cached_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data);

// Published as "ibat_cancel_path_fn": does the same as ibat_cancel_fn, but for requests for paths.
using ibat_cancel_path_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

struct ibat_path_counters_t {
    uint64_t lookups;
    uint64_t hits;     // answered from the cache
    uint64_t requests; // first attempts that were sent
    uint64_t retries;  // further attempts that were sent
    uint64_t refused;  // attempts of either kind that GSI did not send
    uint64_t answers;  // answers with a path
    uint64_t absences; // answers with the status that there is no such path
    uint64_t errors;   // answers with another error, including "busy", and answers without a usable path
    uint64_t strays;   // answers to no waiting attempt (late, duplicate), or of another kind than requested
    uint64_t timeouts; // requests that ended with ibat_stat_timeout; counted once for all callers
    uint64_t drops;    // paths dropped by an event, a change of the active port, a flush, a forget, or because an
                       // address no longer belonged to their GID
    uint64_t entries;  // paths in the cache now, expired or not
    uint64_t pending;  // pending requests now; counted once for all callers
};

// Published as "ibat_path_counters_fn". Reads all counters at one moment. Any context.
using ibat_path_counters_fn_t = void (*)(ibat_path_counters_t* counters);
