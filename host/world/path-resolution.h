// Finds the path from a host to an address or to a GID. The host's module IBAT first finds the GID of an address. Then
// IBAT finds the PathRecord for the GID, in its cache or by asking the SA.
#pragma once

#include <variant>

#include "host/world/resolution.h"

namespace world
{

// A PathRecord (IBA 15.2.5.16) in host order. The fields have the encodings of the standard.
struct path_record {
    kq_gid_t dgid{};
    kq_gid_t sgid{};
    uint16_t dlid = 0;
    uint16_t slid = 0;
    uint16_t p_key = 0;
    uint8_t sl = 0;
    uint8_t mtu = 0;             // 1 is 256 bytes, 5 is 4096
    uint8_t rate = 0;            // 2 is 2.5 Gbit/s, 3 is 10 Gbit/s; see gigabits_of()
    uint8_t packet_lifetime = 0; // n means 4.096 microseconds times 2 to the n
    uint8_t hop_limit = 0;
    uint8_t traffic_class = 0;
    uint8_t preference = 0;
    uint32_t flow_label = 0;
    bool is_reversible = false;

    bool operator==(const path_record&) const = default;
};

// These functions decode fields of a path. They return 0 if the encoding is unknown or the result is too large. Pure.
uint32_t mtu_bytes_of(const path_record& path);
double gigabits_of(const path_record& path); // per second
uint64_t lifetime_microseconds_of(const path_record& path);

enum class path_status {
    found,
    not_found,      // the SA has no record of the address, or no path to the GID
    not_cached,     // only for lookup_mode::cache_only: the caches do not have the answer
    timed_out,      // no answer came in time
    no_active_port, // no port of the host can send a request
    failed,         // for example: IBAT is not loaded, no request could be sent, or the SA has refused it
};

struct path_resolution {
    path_status status = path_status::failed;
    uint32_t ip = 0;                   // address of the destination, network order; 0 if the destination is a GID
    kq_gid_t gid{};                    // GID of the destination; zero if unknown
    path_record path;                  // only valid if the status is `found`
    uint32_t port = 0;                 // only valid if the status is `found`: the host's port on which the path begins
    bool from_cache = false;           // true if the path was found without a request to the SA
    uint64_t duration_ticks = 0;       // by the machine's clock
    uint64_t duration_nanoseconds = 0; // in real time
    std::string reason;                // one line for people; empty if the status is `found`
};

using path_destination = std::variant<uint32_t, kq_gid_t>; // an address in network order, or a GID

// Finds a path and waits for the answer, at most `timeout_ticks`. By default there is no such limit, and the wait ends
// when IBAT gives up. In the simulation, time passes meanwhile. The caller is a thread outside of all machines, or a
// task of this machine that may sleep.
inline constexpr uint64_t no_path_timeout = UINT64_MAX;
path_resolution resolve_path(kernel::machine& machine, const path_destination& destination,
                             lookup_mode mode = lookup_mode::usual, uint64_t timeout_ticks = no_path_timeout);

// Returns the answer if IBAT's caches of addresses and of paths have it. The answer is a path, or not_found if the SA
// has no record of the address. Otherwise returns nothing. Each hit in one of the caches counts as a lookup. The caller
// is a thread outside of all machines, or a task of this machine that may sleep.
std::optional<path_resolution> path_from_cache(kernel::machine& machine, const path_destination& destination);

// Finds a path like resolve_path(), but does not wait for the answer. `callback` is called exactly once: before the
// return, or later by a task of the machine, which `callback` must not block. It is called at the latest when IBAT
// gives up. start_path_resolution() may sleep while it sends a request. `mode` must not be cache_only.
using path_callback = std::function<void(const path_resolution&)>;
void start_path_resolution(kernel::machine& machine, const path_destination& destination, lookup_mode mode,
                           path_callback callback);

} // namespace world
