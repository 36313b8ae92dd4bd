// The timing service of a machine. Atomic handlers (timing_t::atomic) never sleep; they run in the timer context. The
// other handlers may sleep. They run in a second task, in which one handler can delay the next one, and idle work can
// delay a handler. While an atomic handler is due, no handler that may sleep begins. Within each kind, the order is by
// deadline, then by arming.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "host/exec/brief-lock.h"
#include "host/stack/service-task.h"
#include "host/stack/timer-queue.h"
#include "kernel/sync.h"

namespace stack
{

class timers final : public kernel::service
{
  public:
    // Starts the tasks of both kinds. Throws exec::shortage if a task cannot be created.
    explicit timers(kernel::machine& home);

    // Ends the process (exec::panic) if a timer is still armed, because its record or the module of its handler may be
    // gone already.
    ~timers() override;

    // timing.h describes these calls. arm() is for any context; disarm_and_wait() may sleep.
    void arm(const timing_t& timer);
    void disarm_and_wait(const timing_t& timer);

    // The number of armed timers.
    size_t armed() const;

    // Sets the idle work of the second task, whose handlers may sleep. This task calls `work` again and again while no
    // handler is due. `work` returns false if there was nothing to do; the task then sleeps until the next deadline.
    // `work` may sleep, but a handler that becomes due meanwhile must wait for it. Call set_idle_work() once.
    void set_idle_work(std::function<bool()> work);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

  private:
    // A lane is one of the two contexts that run handlers: a task with its own queue of timers. mutex_ guards the
    // members, except the task.
    struct lane {
        lane(kernel::machine& home, const char* name) : task(home, name) {}
        timer_queue queue;
        const timing_t* running_timer = nullptr;          // the timer whose handler runs, or null
        void (*running_handler)(unsigned long) = nullptr; // valid while running_timer is set
        // True while disarm_and_wait() waits for the end of running_timer's handler: arm() then ignores this timer.
        bool is_arming_void = false;
        service_task task;
    };

    std::optional<uint64_t> run(lane& self);
    bool run_idle_work(const lane& self) const;
    bool run_next(lane& self);
    bool take_next(lane& self, armed_timer& next);
    uint64_t next_deadline(lane& self);
    bool still_runs(const timing_t& timer);

    kernel::machine& home_;
    mutable exec::brief_lock mutex_;
    uint64_t arm_count_ = 0;
    // The task of sleeping_ sleeps without a deadline until no atomic timer is due; see next_deadline().
    bool sleeping_waits_for_atomic_ = false;
    wait_queue_head_t handler_ended_;
    std::function<bool()> idle_work_;
    std::atomic<bool> has_idle_work_{false}; // idle_work_ is set; it does not change afterwards
    lane atomic_;
    lane sleeping_; // runs the handlers that may sleep
};

} // namespace stack
