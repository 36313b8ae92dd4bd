// Lookups on a host, with the functions that its modules use: IBAT finds the GID of an address, UCM the address of a
// GID.
#pragma once

#include <cstdint>
#include <string>

#include "host/kernel/machine.h"
#include "ibat.h"

namespace world
{

enum class lookup_mode {
    usual,      // in the cache, then at the SA
    cache_only, // sends nothing
    sa_only,    // at the SA, even if the cache has an answer
};

struct resolution {
    ibat_stat_t status = ibat_stat_error; // for cache_only: not in the cache
    uint32_t ip = 0;                      // network order
    kq_gid_t gid{};
    bool from_cache = false;
    uint64_t took_ticks = 0;       // of the machine's clock
    uint64_t took_nanoseconds = 0; // of the wall clock
    std::string reason;            // one line for people; empty if the status is ok
};

// Both wait for the answer; in the simulation, time passes meanwhile. Called from outside, or from a task of the
// machine that may sleep.
resolution resolve_address(kernel::machine& machine, uint32_t ip, lookup_mode mode = lookup_mode::usual);

// `sa_only` means `usual` here, since UCM's provider always looks in the cache first.
resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, lookup_mode mode = lookup_mode::usual);

} // namespace world
