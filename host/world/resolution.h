// Lookups on a host, with functions that its modules publish. IBAT finds the GID of an address; UCM finds the address
// of a GID.
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
    usual,      // in the cache, then at the SA if necessary
    cache_only, // sends nothing
    sa_only,    // at the SA, even if the cache has an answer
};

struct resolution {
    ibat_stat_t status = ibat_stat_error; // with `cache_only`, this also means: not in the cache
    uint32_t ip = 0;                      // network order
    kq_gid_t gid{};
    bool from_cache = false;
    uint64_t duration_ticks = 0;       // by the machine's clock
    uint64_t duration_nanoseconds = 0; // by the wall clock
    std::string reason;                // one line for people; empty if the status is ok
};

// resolve_address() and resolve_gid() wait for the answer. In the simulation, time passes meanwhile. The caller is
// outside of all machines, or is a task of this machine that may sleep.
resolution resolve_address(kernel::machine& machine, uint32_t ip, lookup_mode mode = lookup_mode::usual);

// `sa_only` means `usual` here, because UCM's provider always searches the cache first.
resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, lookup_mode mode = lookup_mode::usual);

// Searches the host's cache for an address or a GID. Returns nothing if the answer must come from the SA. A hit counts
// as a lookup. The caller is outside of all machines, or is a task of this machine that may sleep.
std::optional<resolution> answer_from_cache(kernel::machine& machine, uint32_t ip);
std::optional<resolution> answer_from_cache(kernel::machine& machine, const kq_gid_t& gid);

// Asks in the same way as resolve_address() and resolve_gid(), but does not wait for the answer. `done` is called
// exactly once: by this call, or later by a task of the machine. `done` must not block that task. Sending the question
// may sleep.
using resolution_callback = std::function<void(const resolution&)>;
void start_resolution(kernel::machine& machine, uint32_t ip, resolution_callback done);
void start_fresh_resolution(kernel::machine& machine, uint32_t ip, resolution_callback done); // skips the cache
void start_resolution(kernel::machine& machine, const kq_gid_t& gid, resolution_callback done);

} // namespace world
