// Locking and waiting, for the modules IBAT and UCM.
#pragma once

#include "kernel/sync.h"
#include "kernel/time.h"

// Holds a spin lock in a scope.
class spin_guard
{
  public:
    explicit spin_guard(spinlock_t* lock) : lock_(lock), flags_(spin_lock_irqsave(lock)) {}
    ~spin_guard() { spin_unlock_irqrestore(lock_, flags_); }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;

  private:
    spinlock_t* lock_;
    unsigned long flags_;
};

// For assertions: returns true if a task holds the lock. This need not be the calling task.
inline bool is_held(const spinlock_t& lock)
{
    return lock.state.load(std::memory_order_relaxed) != 0;
}

// Sleeps until `condition()` is true. Signals do not end the sleep. Calls `condition()` with `lock` held: first at
// once, then after every wake-up of `queue`, and at least once a minute. The caller does not hold `lock`. May sleep.
template <class condition_t>
void wait_until(wait_queue_head_t* queue, spinlock_t* lock, condition_t condition)
{
    const auto holds = [&] {
        spin_guard guard(lock);
        return condition();
    };
    constexpr unsigned long sleep_ticks = 60 * HZ; // longest time between two checks of the condition
    wait_queue_t sleeper;
    prepare_to_wait(queue, &sleeper);
    while (!holds()) {
        schedule_timeout_uninterruptible(sleep_ticks);
        prepare_to_wait(queue, &sleeper);
    }
    finish_wait(queue, &sleeper);
}
