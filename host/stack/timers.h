// The timing service of a machine. Handlers that never sleep run in its timer context. Handlers that may sleep run in
// another task. They may delay each other there, and idle work may delay them. At one tick, the handlers that never
// sleep run first. Within each kind, the order is by deadline, then by arming.
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
    // Starts the tasks of both kinds. Throws a shortage if they cannot be created.
    explicit timers(kernel::machine& home);

    // A hard error if a timer is still armed, because its record or the module of its handler may be gone already.
    ~timers() override;

    // timing.h describes these calls. arm() may be called in any context; disarm_and_wait() may sleep.
    void arm(const timing_t& timer);
    void disarm_and_wait(const timing_t& timer);

    // The number of armed timers.
    size_t armed() const;

    // Sets the work that the task of the sleeping handlers repeats while no handler is due. `work` returns false if
    // there was nothing to do; the task then sleeps. `work` may sleep, and a handler that becomes due waits for it.
    // Call it once.
    void set_idle_work(std::function<bool()> work);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

  private:
    // One of the two contexts that run handlers. Guarded by mutex_, except the task.
    struct lane {
        lane(kernel::machine& home, const char* name) : task(home, name) {}
        timer_queue queue;
        const timing_t* running_timer = nullptr;          // the timer whose handler runs, or null
        void (*running_handler)(unsigned long) = nullptr; // valid while running_timer is set
        bool is_arming_void = false; // arm() ignores running_timer, because a task deletes it and waits for its handler
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
    // The lane of handlers that may sleep waits without a deadline. The atomic lane rings it when it has no timer due.
    bool sleeping_waits_for_atomic_ = false;
    wait_queue_head_t handler_ended_;
    std::function<bool()> idle_work_;
    std::atomic<bool> has_idle_work_{false}; // idle_work_ is set and does not change any more
    lane atomic_;
    lane sleeping_;
};

} // namespace stack
