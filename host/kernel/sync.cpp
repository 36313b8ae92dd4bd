// Implements semaphores, spin locks, wait queues and sleeps for modules. The executor parks a sleeping task. The sleep
// ends at its deadline, or through up() or wake_up_interruptible(). A signal ends an interruptible sleep.
#include "kernel/sync.h"

#include "host/exec/brief-lock.h"
#include "host/kernel/machine.h"
#include "kernel/errno.h"

using exec::might_sleep;
using exec::never;
using exec::task;

namespace
{

task& self(const char* caller = __builtin_FUNCTION())
{
    return exec::current_task_of(caller);
}

// Waits until nobody holds the lock or guard with this state, and takes it.
[[gnu::noinline, gnu::cold]] void wait_and_take(std::atomic<uint32_t>& state, exec::executor& exec)
{
    do exec.relax();
    while (exec::exchange(state, 1, std::memory_order_acquire) != 0);
}

// Holds a guard in a scope of a few instructions. No task sleeps while it holds a guard. Therefore another task that
// needs the guard spins.
class guard_lock
{
  public:
    explicit guard_lock(kernel_guard_t& guard) : guard_(guard)
    {
        if (exec::exchange(guard_.state, 1, std::memory_order_acquire) != 0) wait_and_take(guard_.state, self().exec);
    }
    ~guard_lock() { guard_.state.store(0, std::memory_order_release); }
    guard_lock(const guard_lock&) = delete;
    guard_lock& operator=(const guard_lock&) = delete;

  private:
    kernel_guard_t& guard_;
};

// Call it when a task has slept in an inner wait (for a semaphore or in a second wait queue) while it was also in an
// outer wait queue. A wake-up of the outer queue may have ended the inner sleep. Therefore this function makes the
// task's next sleep end at once, so that the task checks the condition of the outer queue again.
void keep_outer_wake_up(task& sleeper)
{
    if (sleeper.wait_entry) sleeper.exec.wake(sleeper);
}

// One task in a semaphore's queue. The record is on the task's stack.
struct semaphore_waiter {
    list_head link;
    ::task* task;
    bool has_unit; // true if up() has given the task a unit; guarded by the semaphore's guard
};

bool has_unit(semaphore* sem, const semaphore_waiter& waiter)
{
    const guard_lock lock(sem->guard);
    return waiter.has_unit;
}

// Removes the waiter from the queue. Returns false if up() has already removed it and given it a unit.
bool leave_queue(semaphore* sem, semaphore_waiter& waiter)
{
    const guard_lock lock(sem->guard);
    if (waiter.has_unit) return false;
    list_del_init(&waiter.link);
    return true;
}

// Takes a unit and returns true. If there is none, puts the calling task into the queue and returns false.
bool take_or_queue(semaphore* sem, semaphore_waiter& waiter)
{
    const guard_lock lock(sem->guard);
    if (sem->count > 0) {
        --sem->count;
        return true;
    }
    waiter = {.link = {}, .task = &self(), .has_unit = false};
    list_add_tail(&waiter.link, &sem->waiters);
    return false;
}

void count_signal_seen(const task& task)
{
    if (task.home) ++static_cast<kernel::machine*>(task.home)->signals_seen;
}

// Sleeps and returns the remaining ticks. Outside of all wait queues, an uninterruptible sleep lasts until its
// deadline.
unsigned long sleep_for(unsigned long timeout_ticks, const char* call, bool is_interruptible)
{
    might_sleep(call);
    task& sleeper = self();
    const uint64_t begin = sleeper.exec.now();
    const uint64_t deadline = timeout_ticks < never - begin ? begin + timeout_ticks : never;
    const char* object = sleeper.wait_entry ? sleeper.wait_entry->queue_name : "";
    if (is_interruptible) {
        sleeper.interruptible = true;
        if (!sleeper.signal) sleeper.exec.park(deadline, call, object);
        sleeper.interruptible = false;
        if (sleeper.signal && sleeper.exec.now() < deadline) count_signal_seen(sleeper);
    } else {
        do {
            sleeper.exec.park(deadline, call, object);
        } while (!sleeper.wait_entry && sleeper.exec.now() < deadline);
    }
    const uint64_t end = sleeper.exec.now();
    return end < deadline ? deadline - end : 0;
}

} // namespace

void sema_init_named(semaphore* sem, int32_t count, const char* name)
{
    sem->guard.state = 0;
    sem->count = count;
    list_init(&sem->waiters);
    sem->name = name;
}

void down(semaphore* sem)
{
    might_sleep("down");
    self().exec.switch_point();
    semaphore_waiter waiter;
    if (take_or_queue(sem, waiter)) return;
    while (!has_unit(sem, waiter)) self().exec.park(never, "down", sem->name);
    keep_outer_wake_up(self());
}

int down_interruptible(semaphore* sem)
{
    if (kernel::current_machine(__func__).faults.should_fail(__func__)) return -EK_RESTARTSYS;
    return kernel::down_or_signal(sem);
}

int kernel::down_or_signal(semaphore* sem)
{
    might_sleep("down_interruptible");
    task& caller = self();
    caller.exec.switch_point();
    semaphore_waiter waiter;
    if (take_or_queue(sem, waiter)) return 0;
    caller.interruptible = true;
    while (!caller.signal && !has_unit(sem, waiter)) caller.exec.park(never, "down_interruptible", sem->name);
    caller.interruptible = false;
    keep_outer_wake_up(caller);
    if (!leave_queue(sem, waiter)) return 0;
    count_signal_seen(caller);
    return -EK_RESTARTSYS;
}

void up(semaphore* sem)
{
    {
        const guard_lock lock(sem->guard);
        if (list_empty(&sem->waiters)) {
            ++sem->count;
        } else {
            auto* first = list_entry(sem->waiters.next, semaphore_waiter, link);
            list_del_init(&first->link);
            first->has_unit = true;
            // Wake the task while holding the guard. As soon as the guard is released, the task may continue and its
            // record `first`, which is on its stack, may be gone.
            first->task->exec.wake(*first->task);
        }
    }
    exec::preemption_point();
}

void spin_lock_init(spinlock_t* lock)
{
    lock->state = 0;
}

unsigned long spin_lock_irqsave(spinlock_t* lock)
{
    task& caller = self();
    caller.exec.switch_point();
    if (exec::exchange(lock->state, 1, std::memory_order_acquire) != 0) wait_and_take(lock->state, caller.exec);
    return static_cast<unsigned long>(caller.spin_locks++);
}

void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags)
{
    task& holder = self();
    holder.spin_locks = static_cast<int>(flags);
    if (exec::exchange(lock->state, 0, std::memory_order_release) == 0)
        exec::panic("spin_unlock_irqrestore: the lock is not held");
    holder.exec.switch_point();
}

void must_not_hold_spin_lock(const char* entry)
{
    if (self().spin_locks > 0) exec::panic("%s is called with a spin lock held", entry);
}

void init_waitqueue_head_named(wait_queue_head_t* queue, const char* name)
{
    queue->guard.state = 0;
    list_init(&queue->sleepers);
    queue->name = name;
}

void wake_up_interruptible(wait_queue_head_t* queue)
{
    {
        const guard_lock lock(queue->guard);
        for (list_head* link = queue->sleepers.next; link != &queue->sleepers; link = link->next)
            self().exec.wake(*static_cast<task*>(list_entry(link, wait_queue_t, link)->task));
    }
    exec::preemption_point();
}

void prepare_to_wait(wait_queue_head_t* queue, wait_queue_t* sleeper)
{
    const guard_lock lock(queue->guard);
    for (const list_head* link = queue->sleepers.next; link != &queue->sleepers; link = link->next)
        if (link == &sleeper->link) return; // it is already in the queue
    task& caller = self();
    sleeper->task = &caller;
    sleeper->queue_name = queue->name;
    sleeper->outer = caller.wait_entry;
    caller.wait_entry = sleeper;
    list_add_tail(&sleeper->link, &queue->sleepers);
}

void finish_wait(wait_queue_head_t* queue, wait_queue_t* sleeper)
{
    task& caller = self();
    if (caller.wait_entry != sleeper)
        exec::panic("finish_wait: the task is not in %s, or joined another wait queue later", queue->name);
    const guard_lock lock(queue->guard);
    list_del_init(&sleeper->link);
    caller.wait_entry = sleeper->outer;
    keep_outer_wake_up(caller);
}

unsigned long schedule_timeout_interruptible(unsigned long timeout_ticks)
{
    return sleep_for(timeout_ticks, "schedule_timeout_interruptible", true);
}

unsigned long schedule_timeout_uninterruptible(unsigned long timeout_ticks)
{
    return sleep_for(timeout_ticks, "schedule_timeout_uninterruptible", false);
}

bool signal_pending()
{
    const bool is_pending = self().signal;
    if (is_pending) count_signal_seen(self());
    return is_pending;
}
