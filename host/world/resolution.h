// Lookups on a host. They call functions that the host's modules publish: IBAT finds the GID of an address, and UCM
// finds the address of a GID.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/kernel/machine.h"
#include "ibat.h"

namespace world
{

enum class lookup_mode {
    usual,      // searches the cache; asks the SA if the cache has no answer
    cache_only, // searches the cache; sends nothing
    sa_only,    // asks the SA, even if the cache has an answer
};

struct resolution {
    ibat_stat_t status = ibat_stat_error; // after a lookup with cache_only, an error can mean "not in the cache"
    uint32_t ip = 0;                      // network order
    kq_gid_t gid{};
    bool from_cache = false;           // true if the module answered at once, also with an error
    uint64_t duration_ticks = 0;       // by the machine's clock; set by resolve_address() and resolve_gid() only
    uint64_t duration_nanoseconds = 0; // in real time
    std::string reason;                // one line for people; empty if the status is ok
};

// Finds the GID of an address. resolve_address() and resolve_gid() wait for the answer. In the simulation, time passes
// meanwhile. The caller is a thread outside of all machines, or a task of this machine that may sleep.
resolution resolve_address(kernel::machine& machine, uint32_t ip, lookup_mode mode = lookup_mode::usual);

// Finds the address of a GID. The mode sa_only has the same effect as the mode usual, because the module that answers
// UCM's requests always searches the cache first.
resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, lookup_mode mode = lookup_mode::usual);

// Searches IBAT's cache for an address or a GID. Returns nothing if the cache does not have the answer, or if IBAT is
// not loaded. The caller is a thread outside of all machines, or a task of this machine that may sleep. In IBAT's
// counters, a returned answer counts as a lookup and a hit. A GID that is not in the cache counts as a lookup and a
// miss.
std::optional<resolution> answer_from_cache(kernel::machine& machine, uint32_t ip);
std::optional<resolution> answer_from_cache(kernel::machine& machine, const kq_gid_t& gid);

// The next functions do the same lookups as resolve_address() and resolve_gid(), but do not wait for the answer.
// `callback` is called exactly once: before the return, or later by a task of the machine, which `callback` must not
// block. The functions may sleep while they send a request. start_fresh_resolution() ignores the cache.
using resolution_callback = std::function<void(const resolution&)>;
void start_resolution(kernel::machine& machine, uint32_t ip, resolution_callback callback);
void start_fresh_resolution(kernel::machine& machine, uint32_t ip, resolution_callback callback);
void start_resolution(kernel::machine& machine, const kq_gid_t& gid, resolution_callback callback);

} // namespace world
