// The timing service: one-shot timers on the kernel clock.
#pragma once

#include <cstdint>

#include "kernel/export.h"

struct timing_t {
    unsigned long expires; // absolute, in ticks
    void (*function)(unsigned long data);
    unsigned long data;
    // True if the handler never sleeps. It then runs in the timer context, before the handlers that may sleep. A
    // blocking call in it is a hard error.
    bool atomic;
};

// Prepares a record; every field becomes zero. The record must stay in place until it is deleted.
KERNEL_API void init_timing(timing_t* timer);

// Arms the timer. When the clock reaches `expires` (at once if it already has), `function` is called once with `data`.
// `function` may arm the timer again. Arming an armed timer changes its time. Any context.
KERNEL_API void add_timing(timing_t* timer);

// Disarms the timer and waits until its function does not run. Also disarms the timer if its function has armed it
// again. May sleep; the function itself must not call this.
KERNEL_API void del_timing_sync(timing_t* timer);
