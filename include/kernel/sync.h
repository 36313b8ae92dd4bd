// Waiting and excluding: semaphores, wait queues, spin locks, sleeps, signals. Every record here is valid when
// its init call has run, holds no storage elsewhere and needs no destruction.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernel/export.h"
#include "kernel/list.h"

// Guards the few fields of a semaphore or a wait queue; belongs to the kernel.
struct kernel_guard_t {
    std::atomic<uint32_t> state;
};

// ---- counting semaphore; waiters are served in the order they came ----

struct semaphore {
    kernel_guard_t guard;
    int32_t count;
    list_head waiters;
    const char* name; // shown when a deadlock is reported
};

KERNEL_API void sema_init_named(semaphore* sem, int32_t count, const char* name);
#define sema_init(sem, count) sema_init_named(sem, count, #sem)

// Takes one unit; sleeps, whatever signals arrive.
KERNEL_API void down(semaphore* sem);

// Takes one unit; sleeps. Returns 0, or -EK_RESTARTSYS without the unit when a signal arrived (or was pending
// and the call would have had to wait).
KERNEL_API int down_interruptible(semaphore* sem);

// Returns one unit. Any context.
KERNEL_API void up(semaphore* sem);

// ---- spin lock ----

// While it is held the holder may not sleep, and in a real kernel interrupts are off.
struct spinlock_t {
    std::atomic<uint32_t> state;
};

KERNEL_API void spin_lock_init(spinlock_t* lock);
KERNEL_API unsigned long spin_lock_irqsave(spinlock_t* lock); // the interrupt state to restore
KERNEL_API void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags);

// For entries that may only be called without a spin lock: holding one is a hard error that names the entry. This finds
// a callback made under a lock before it deadlocks on that lock.
KERNEL_API void must_not_hold_spin_lock(const char* entry);

// ---- wait queue ----

struct wait_queue_head_t {
    kernel_guard_t guard;
    list_head sleepers;
    const char* name; // shown when a deadlock is reported
};

// One sleeper; lives on its stack and needs no initialisation.
struct wait_queue_t {
    list_head link;
    struct kernel_task_t* task;
    const char* queue_name;
    const wait_queue_t* outer; // where the task stood already, or null
};

KERNEL_API void init_waitqueue_head_named(wait_queue_head_t* queue, const char* name);
#define init_waitqueue_head(queue) init_waitqueue_head_named(queue, #queue)

// Wakes every sleeper of the queue; each then looks at its condition again. Any context.
KERNEL_API void wake_up_interruptible(wait_queue_head_t* queue);

// Puts the calling task into the queue, unless it stands there already; finish_wait takes it out. A task may wait in a
// second queue, or for a semaphore, while it stands in one: its next sleep in the outer queue then ends at once, since
// a wake-up may have come meanwhile. The queue that was joined last is left first; another order is a hard error.
KERNEL_API void prepare_to_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);
KERNEL_API void finish_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);

// Sleeps until woken through the queue that the caller stands in, signalled (the interruptible form) or
// `timeout_ticks` have passed; returns the ticks left. The interruptible form may return early for no reason.
KERNEL_API unsigned long schedule_timeout_interruptible(unsigned long timeout_ticks);
KERNEL_API unsigned long schedule_timeout_uninterruptible(unsigned long timeout_ticks);

// Is a signal waiting for the calling task?
KERNEL_API bool signal_pending();

// Sleeps until `condition()` holds, a signal is pending or `timeout_ticks` have passed. A wake-up that finds none
// of these goes back to sleep for the rest. Looks at the condition before it sleeps at all.
template <class condition_t>
void wait_event_interruptible_timeout(wait_queue_head_t* queue, condition_t condition, unsigned long timeout_ticks)
{
    wait_queue_t sleeper;
    while (true) {
        prepare_to_wait(queue, &sleeper);
        if (condition() || signal_pending() || timeout_ticks == 0) break;
        timeout_ticks = schedule_timeout_interruptible(timeout_ticks);
    }
    finish_wait(queue, &sleeper);
}
