// The timing service: one-shot timers on the kernel clock. The caller owns the record of a timer, and arms the timer
// for a tick. When this tick comes, the service calls the timer's function once.
#pragma once

#include <cstdint>

#include "kernel/export.h"

struct timing_t {
    unsigned long expires; // absolute, in ticks
    void (*function)(unsigned long data);
    unsigned long data;
    // True if `function` never sleeps. The service then calls it in the timer context, before the functions of due
    // timers that are not atomic. If `function` makes a call that may sleep, the program ends with an error.
    bool atomic;
};

// Prepares a record: every field becomes zero. The record must exist, at the same address, until del_timing_sync has
// returned. May sleep.
KERNEL_API void init_timing(timing_t* timer);

// Arms the timer. When the clock reaches `expires`, the service calls `function` once with `data`. If the clock has
// already reached `expires`, the service calls it as soon as possible, but not inside add_timing. `function` may arm
// the timer again. If the timer is already armed, add_timing changes its time. Any context.
KERNEL_API void add_timing(timing_t* timer);

// Disarms the timer. If `function` is running, waits until it has returned. If `function` arms the timer again
// meanwhile, the timer stays disarmed. `function` must not delete its own timer. May sleep.
KERNEL_API void del_timing_sync(timing_t* timer);
