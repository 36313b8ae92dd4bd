// The timing service of a machine. Handlers that never sleep run in its timer context. Handlers that may sleep run in
// another task, so that they delay only each other. Idle work may delay them, too. Handlers that are due at one tick
// run in this order: first those that never sleep, then the others; each kind by deadline, then in the order of arming.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "host/stack/service-task.h"
#include "host/stack/timer-queue.h"
#include "kernel/sync.h"

namespace stack
{

class timers final : public kernel::service
{
  public:
    // Starts the tasks of both kinds. Throws a shortage when there is no room for them.
    explicit timers(kernel::machine& home);

    // A timer that is still armed is a hard error: its record, or the module of its handler, may not exist any more.
    ~timers() override;

    // timing.h describes these calls. arm() may be called in any context; disarm_and_wait() may sleep.
    void arm(const timing_t& timer);
    void disarm_and_wait(const timing_t& timer);

    // The number of armed timers.
    size_t armed() const;

    // Sets what the task of the sleeping handlers does, again and again, while no handler is due. It sleeps when `work`
    // returns false: nothing was done. `work` may sleep; a handler that becomes due meanwhile waits for it. Once only.
    void set_idle_work(std::function<bool()> work);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

  private:
    // One of the two contexts that run handlers. Guarded by mutex_, except the task.
    struct lane {
        lane(kernel::machine& home, const char* name) : task(home, name) {}
        timer_queue queue;
        const timing_t* running_timer = nullptr;          // its handler runs; null: none does
        void (*running_handler)(unsigned long) = nullptr; // valid while running_timer is set
        bool is_arming_void = false;                      // a task that deletes running_timer waits for the handler
        service_task task;
    };

    void run(lane& self);
    bool run_idle_work(const lane& self) const;
    bool run_next(lane& self);
    bool take_next(lane& self, armed_timer& next);
    uint64_t next_deadline(lane& self);
    bool still_runs(const timing_t& timer);

    kernel::machine& home_;
    mutable std::mutex mutex_;
    uint64_t times_armed_ = 0;
    bool sleeping_waits_for_atomic_ =
        false; // the sleeping lane sleeps without a deadline until the atomic one rings it
    wait_queue_head_t handler_ended_;
    std::function<bool()> idle_work_;
    std::atomic<bool> has_idle_work_{false}; // idle_work_ is set, and does not change any more
    lane atomic_;
    lane sleeping_;
};

} // namespace stack
