// Semaphores, wait queues, spin locks, sleeps and signals. A record is valid after its init call. It owns no other
// memory and needs no destruction.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernel/export.h"
#include "kernel/list.h"

// Guards the fields of a semaphore or a wait queue. Only the kernel uses it.
struct kernel_guard_t {
    std::atomic<uint32_t> state;
};

// ---- counting semaphore; tasks get units in the order of their requests ----

struct semaphore {
    kernel_guard_t guard;
    int32_t count;
    list_head waiters;
    const char* name; // for the report of a deadlock; the text must outlive the record
};

KERNEL_API void sema_init_named(semaphore* sem, int32_t count, const char* name);
#define sema_init(sem, count) sema_init_named(sem, count, #sem)

// Takes one unit. May sleep; signals do not end the sleep.
KERNEL_API void down(semaphore* sem);

// Takes one unit and returns 0. If it must wait, a signal that is pending or arrives ends the wait: it returns
// -EK_RESTARTSYS without a unit. May sleep.
KERNEL_API int down_interruptible(semaphore* sem);

// Returns one unit. Any context.
KERNEL_API void up(semaphore* sem);

// ---- spin lock ----

// A task that holds it may not sleep. In a real kernel, interrupts are off.
struct spinlock_t {
    std::atomic<uint32_t> state;
};

KERNEL_API void spin_lock_init(spinlock_t* lock);

// Takes the lock. Returns the interrupt state, which spin_unlock_irqrestore restores. Any context.
KERNEL_API unsigned long spin_lock_irqsave(spinlock_t* lock);

// Releases the lock. A hard error if it is not held. Any context.
KERNEL_API void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags);

// For functions that must not be called with a spin lock held. If the task holds one, this is a hard error that names
// `entry`. Such a call is thus found before it deadlocks on the lock.
KERNEL_API void must_not_hold_spin_lock(const char* entry);

// ---- wait queue ----

struct wait_queue_head_t {
    kernel_guard_t guard;
    list_head sleepers;
    const char* name; // for the report of a deadlock; the text must outlive the record
};

// One sleeping task. The record is on the task's stack and needs no initialisation.
struct wait_queue_t {
    list_head link;
    struct kernel_task_t* task;
    const char* queue_name;
    const wait_queue_t* outer; // the entry in the queue that the task joined before, or null
};

KERNEL_API void init_waitqueue_head_named(wait_queue_head_t* queue, const char* name);
#define init_waitqueue_head(queue) init_waitqueue_head_named(queue, #queue)

// Wakes all sleepers of the queue. Each of them checks its condition again. Any context.
KERNEL_API void wake_up_interruptible(wait_queue_head_t* queue);

// prepare_to_wait puts the calling task into the queue, unless it is already in it; finish_wait removes it. A task in
// one queue may also wait in a second queue or for a semaphore. Its next sleep in the outer queue then ends at once,
// because a wake-up may have come meanwhile. It is a hard error to leave the queues in another order than last in,
// first out. Any context.
KERNEL_API void prepare_to_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);
KERNEL_API void finish_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);

// Sleeps until the task is woken through its queue or `timeout_ticks` have passed. A signal also ends the interruptible
// sleep. The interruptible sleep may also end early without a reason. Returns the remaining ticks.
KERNEL_API unsigned long schedule_timeout_interruptible(unsigned long timeout_ticks);
KERNEL_API unsigned long schedule_timeout_uninterruptible(unsigned long timeout_ticks);

// True if a signal is pending for the calling task. Any context.
KERNEL_API bool signal_pending();

// Sleeps until `condition()` is true, a signal is pending or `timeout_ticks` have passed. Checks the condition first,
// and again after each wake-up through the queue.
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
