// Semaphores, wait queues, spin locks, sleeps and signals, with which the tasks of a machine wait for each other. A
// semaphore, wait queue or spin lock is valid after its init call. It owns no memory and needs no destruction. A "hard
// error" ends the program with a message.
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
    const char* name; // deadlock reports show it; the text must outlive the record
};

KERNEL_API void sema_init_named(semaphore* sem, int32_t count, const char* name);
#define sema_init(sem, count) sema_init_named(sem, count, #sem)

// Takes one unit. Sleeps until there is one; a signal does not end the sleep. May sleep.
KERNEL_API void down(semaphore* sem);

// Takes one unit and returns 0. If the call must wait, a signal that is pending or that arrives ends the wait; the call
// then returns -EK_RESTARTSYS and takes no unit. May sleep.
KERNEL_API int down_interruptible(semaphore* sem);

// Returns one unit. Any context.
KERNEL_API void up(semaphore* sem);

// ---- spin lock ----

// A task that holds the lock must not sleep.
struct spinlock_t {
    std::atomic<uint32_t> state;
};

KERNEL_API void spin_lock_init(spinlock_t* lock);

// Takes the lock; spins while another task holds it. The caller passes the returned number to spin_unlock_irqrestore.
// Any context.
KERNEL_API unsigned long spin_lock_irqsave(spinlock_t* lock);

// Releases the lock. It is a hard error if no task holds it. Any context.
KERNEL_API void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags);

// It is a hard error if the calling task holds a spin lock; the message shows `entry`. A function that takes a lock
// calls this at its start. Every call with a spin lock held is then an error, even if it would not deadlock.
KERNEL_API void must_not_hold_spin_lock(const char* entry);

// ---- wait queue ----

struct wait_queue_head_t {
    kernel_guard_t guard;
    list_head sleepers;
    const char* name; // deadlock reports show it; the text must outlive the record
};

// One task in a wait queue. The record is on the task's stack; prepare_to_wait initialises it.
struct wait_queue_t {
    list_head link;
    struct kernel_task_t* task;
    const char* queue_name;
    const wait_queue_t* outer; // the task's record in the queue that it joined before this one, or null
};

KERNEL_API void init_waitqueue_head_named(wait_queue_head_t* queue, const char* name);
#define init_waitqueue_head(queue) init_waitqueue_head_named(queue, #queue)

// Wakes all tasks in the queue. Each of them then checks its condition again. Any context.
KERNEL_API void wake_up_interruptible(wait_queue_head_t* queue);

// prepare_to_wait puts the calling task into the queue; it does nothing if `sleeper` is in the queue already.
// finish_wait removes the task. A task that is in one queue may also join a second queue, or wait for a semaphore. Its
// next sleep in the first queue then ends at once, because a wake-up of the first queue may have come meanwhile. A task
// leaves its queues in the reverse order; another order is a hard error. Any context.
KERNEL_API void prepare_to_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);
KERNEL_API void finish_wait(wait_queue_head_t* queue, wait_queue_t* sleeper);

// Both calls sleep until the task is woken through its wait queue or `timeout_ticks` have passed, and return the
// remaining ticks. A signal also ends the interruptible sleep. An interruptible sleep, and every sleep in a wait queue,
// may also end early for no reason; the caller then checks its condition again.
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
