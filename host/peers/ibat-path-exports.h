// IBAT's functions for modules of its host that need paths. A path leads from the host's active port to the port with a
// GID. IBAT asks the SA for the PathRecord (SubnAdmGet, IBA 15.2.5.16) and caches it for a while. It drops the path
// when the port's link, LID or SM changes. If several askers ask for one GID, IBAT sends one request. It sends
// nothing before the first question.
//
// Every record with ibat_stat_ok has these fields: `gid` is the destination, `local_port_num` the port on which the
// path begins, `paths[0]` the path in host order, `primary_path` points to it, `paths_count` is 1. `mask` has
// IBAT_MASK_GID and IBAT_MASK_LOCAL_PORT_NUM.
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
// ibat_stat_error: memory ran out, GSI or verbs refused to serve IBAT, the GID is zero, or a pointer is null.
//
// The callback runs without a lock, in a task that may sleep. It may call every function here, but must not cancel
// itself with ibat_cancel_path. Its status is ibat_stat_ok, ibat_stat_no_path, ibat_stat_refused, ibat_stat_timeout (no
// attempt was answered), ibat_stat_no_port (the port went down) or ibat_stat_error (no attempt could be sent, or IBAT
// ends). Its record is never null and always has the GID.
using ibat_get_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data,
                                           ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

// Published as "ibat_refresh_path_fn": the same, but always asks the SA. Its answer replaces the path in the cache.
using ibat_refresh_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_get_ib_data_reply_fn_t user_cb,
                                               void* user_context);

// Published as "ibat_cached_path_fn": searches only the cache. ibat_stat_ok: `arp_data` is filled; counts a lookup and
// a hit. ibat_stat_error: the cache does not have the path, or a pointer is null. Any context.
using ibat_cached_path_fn_t = ibat_stat_t (*)(const kq_gid_t* gid, ibat_arp_data_t* arp_data);

// Published as "ibat_cancel_path_fn": the same as ibat_cancel_fn, for requests of paths.
using ibat_cancel_path_fn_t = int32_t (*)(ibat_get_ib_data_reply_fn_t user_cb, void* user_context);

struct ibat_path_counters_t {
    uint64_t lookups;
    uint64_t hits;     // answered from the cache
    uint64_t requests; // first attempts that were sent
    uint64_t retries;  // further attempts that were sent
    uint64_t refused;  // attempts of either kind that GSI did not send
    uint64_t answers;  // answers with a path
    uint64_t absences; // answers that there is no such path
    uint64_t errors;   // answers with another error, including "busy"
    uint64_t strays;   // answers without a waiting attempt: late ones and duplicates
    uint64_t timeouts; // requests given up; a request counts once for all its askers
    uint64_t drops; // paths dropped before they expired: by an event, a flush, or an address that moved to another GID
    uint64_t entries; // in the cache now
    uint64_t pending; // requests now
};

// Published as "ibat_path_counters_fn". Reads all counters at one moment. Any context.
using ibat_path_counters_fn_t = void (*)(ibat_path_counters_t* counters);
