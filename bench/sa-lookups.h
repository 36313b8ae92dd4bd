// Asks the SA for the GIDs of addresses, with at most `window` pending requests. Counts the answers with the status
// ibat_stat_ok. For tasks of a simulation.
#pragma once

#include "host/peers/ibat-exports.h"
#include "host/world/published.h"
#include "kernel/sync.h"

struct sa_lookups {
    // The caller should use at least this many different addresses, because IBAT joins requests for the same address.
    static constexpr int window = 8;

    explicit sa_lookups(kernel::machine& host) : refresh(host, "ibat_refresh_fn") { sema_init(&free_slots, window); }

    // Sends a request for the GID of an address (network order). Sleeps while `window` requests are pending.
    void send(uint32_t ip)
    {
        down(&free_slots);
        if ((*refresh)(ip, count_answer, this) != ibat_stat_pending) up(&free_slots);
    }

    // Waits for all answers. Keeps all slots: a later send() sleeps until the caller frees slots with up(&free_slots).
    void wait_for_all()
    {
        for (int i = 0; i < window; ++i) down(&free_slots);
    }

    static void count_answer(ibat_stat_t status, ibat_arp_data_t*, void* context)
    {
        auto& self = *static_cast<sa_lookups*>(context);
        if (status == ibat_stat_ok) ++self.right_answers;
        up(&self.free_slots);
    }

    world::published<ibat_refresh_fn_t> refresh;
    semaphore free_slots;
    uint64_t right_answers = 0;
};
