// Paths from a host to an address or a GID. IBAT finds them: first the GID of the address, then the SA's PathRecord.
#pragma once

#include <variant>

#include "host/world/resolution.h"

namespace world
{

// A PathRecord (IBA 15.2.5.16) in host order. Numbers are the standard's encodings.
struct path_record {
    kq_gid_t dgid{};
    kq_gid_t sgid{};
    uint16_t dlid = 0;
    uint16_t slid = 0;
    uint16_t p_key = 0;
    uint8_t sl = 0;
    uint8_t mtu = 0;             // 1 is 256 bytes, 5 is 4096
    uint8_t rate = 0;            // 2 is 2.5 Gbit/s, 3 is 10 Gbit/s; see gigabits_of()
    uint8_t packet_lifetime = 0; // n stands for 4.096 microseconds times 2 to the n
    uint8_t hop_limit = 0;
    uint8_t traffic_class = 0;
    uint8_t preference = 0;
    uint32_t flow_label = 0;
    bool is_reversible = false;

    bool operator==(const path_record&) const = default;
};

// These decode fields of a path. An unknown encoding gives zero. Pure.
uint32_t mtu_bytes_of(const path_record& path);
double gigabits_of(const path_record& path); // a second
uint64_t lifetime_microseconds_of(const path_record& path);

enum class path_status {
    found,
    not_found,      // the SA names no owner of the address, or knows no path to the GID
    not_cached,     // of cache_only: the cache knows no path
    timed_out,      // the SA did not answer in time
    no_active_port, // the host has no port to ask through
    failed,         // the SA could not be asked, or refused
};

struct path_resolution {
    path_status status = path_status::failed;
    uint32_t ip = 0;   // of the destination, network order; 0: it was named by its GID
    kq_gid_t gid{};    // of the destination; zero: not known
    path_record path;  // of `found`
    uint32_t port = 0; // of `found`: the host's port on which the path begins
    bool from_cache = false;
    uint64_t took_ticks = 0;       // of the machine's clock
    uint64_t took_nanoseconds = 0; // of the wall clock
    std::string reason;            // one line for people; empty if the status is `found`
};

using path_destination = std::variant<uint32_t, kq_gid_t>; // an address in network order, or a GID

// Waits for the answer, for `timeout_ticks` at most; the default is longer than IBAT tries. In the simulation, time
// passes meanwhile. Called from outside, or from a task of the machine that may sleep.
inline constexpr uint64_t no_path_timeout = UINT64_MAX;
path_resolution resolve_path(kernel::machine& machine, const path_destination& destination,
                             lookup_mode mode = lookup_mode::usual, uint64_t timeout_ticks = no_path_timeout);

// The path, if the host's caches know it. A hit counts as a lookup. Called from outside, or from a task of the machine
// that may sleep.
std::optional<path_resolution> path_from_cache(kernel::machine& machine, const path_destination& destination);

// Asks as resolve_path() does, but does not wait for the answer. `done` is called exactly once, within the time that
// IBAT tries: by this call, or later by a task of the machine, which it must not keep waiting. May sleep. `mode` is not
// cache_only.
using path_callback = std::function<void(const path_resolution&)>;
void start_path_resolution(kernel::machine& machine, const path_destination& destination, lookup_mode mode,
                           path_callback done);

} // namespace world
