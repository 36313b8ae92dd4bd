// The timing service: one-shot timers on the kernel clock.
#pragma once

#include <cstdint>

#include "kernel/export.h"

struct timing_t {
    unsigned long expires; // absolute, in ticks
    void (*function)(unsigned long data);
    unsigned long data;
    // Set for a handler that never sleeps: it then runs in the timer context, before every handler that may
    // sleep. A blocking call in it is a hard error.
    bool atomic;
};

// Prepares a record; every field is zero afterwards. The record must stay in place until it is deleted.
KERNEL_API void init_timing(timing_t* timer);

// Arms the timer: once the clock reaches `expires` (at once if it already has), `function` is called once with
// `data`. `function` may arm the timer again. Arming an armed timer moves it. Any context.
KERNEL_API void add_timing(timing_t* timer);

// Disarms the timer and returns when its function is not running. Also disarms the timer if its function armed it
// again meanwhile. May sleep; must not be called by the function itself.
KERNEL_API void del_timing_sync(timing_t* timer);
