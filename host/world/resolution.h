// Asking a host: address to GID through its IBAT, GID to address through its UCM, as any module of the host would.
#pragma once

#include <cstdint>
#include <string>

#include "host/kernel/machine.h"
#include "ibat.h"

namespace world
{

enum class ask {
    usual,      // the cache first, then the SA
    cache_only, // nobody is asked
    sa_only,    // the SA, whatever the cache holds
};

struct resolution {
    ibat_stat_t status = ibat_stat_error; // of `cache_only`: the cache does not know
    uint32_t ip = 0;                      // network order
    kq_gid_t gid{};
    bool from_cache = false;
    uint64_t took_ticks = 0;       // of the machine's clock
    uint64_t took_nanoseconds = 0; // of the wall clock
    std::string why;               // of a status that is not ok: one line for people
};

// Both wait for the answer (in the simulation they let the world run). Called from outside or from a task of the
// machine that may sleep.
resolution resolve_address(kernel::machine& machine, uint32_t ip, ask how = ask::usual);

// `sa_only` cannot be asked of UCM, whose provider looks in the cache first; it is taken as `usual`.
resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, ask how = ask::usual);

} // namespace world
