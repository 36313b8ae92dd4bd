// Tasks and time: the calls with which the hosted kernel runs and waits. All blocking code uses only these calls. There
// are two implementations: `threaded` (real threads, the steady clock) and `simulated` (fibers, a clock that jumps).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/exec/task.h"

namespace exec
{

constexpr uint64_t never = UINT64_MAX; // a deadline that never comes

// A task waits in this way between two steps of its work. executor::park describes the members.
struct rest {
    uint64_t deadline;
    const char* reason;
    const char* object;
    bool is_last = false; // the task ends instead
};

class executor
{
  public:
    virtual ~executor() = default;

    // The clock in ticks of 1 ms. Any thread.
    virtual uint64_t now() const = 0;

    // Starts a task inside `home`. A null `home` is for tasks outside of all machines, for example those of the fabric.
    // The executor owns the task until it is joined. Every task must be joined. The name appears in reports. Any
    // thread. Throws a shortage if the process cannot create another task.
    virtual task& start(task_home* home, std::string name, std::function<void()> body) = 0;

    // Starts a task that takes one step after another, and parks between two steps as the last one says. Start and join
    // it like any other task. In the simulation it needs no stack while it rests, so thousands of hosts can keep such
    // tasks.
    virtual task& start_steps(task_home* home, std::string name, std::function<rest()> step) = 0;

    // Waits until the task has ended, and frees it. The caller is a task that may sleep, or a thread from outside. In
    // the simulation, the thread from outside runs the tasks meanwhile. It throws `stalled` if the task cannot end.
    virtual void join(task& task) = 0;

    // The calling task sleeps until it is woken or the clock reaches `deadline`. Returns at once if it was woken after
    // it last parked. No wake-up is lost, but several count as one. May return early without a reason. `reason` and
    // `object` tell in reports what the task waits for. They must outlive the sleep. A hard error in a context that may
    // not sleep.
    virtual void park(uint64_t deadline, const char* reason, const char* object) = 0;

    // Ends the task's sleep. If it does not sleep, ends its next sleep. Any thread, any context; never blocks.
    virtual void wake(task& task) = 0;

    // For a thread from outside: runs `body` inside `home` as a task named `name`, and returns when it has ended. If
    // the caller is a task, it runs `body` itself and is inside `home` meanwhile. Passes on exceptions of `body`. In
    // the simulation, throws `stalled` if the body cannot end, and a shortage if it cannot create a task.
    virtual void enter(task_home* home, const std::string& name, const std::function<void()>& body) = 0;

    // Another task may run here. The simulation may switch tasks here when it explores interleavings. Called at locks,
    // unlocks and posts, so it costs one load if there is nothing to explore.
    void switch_point()
    {
        if (explores_switches_) [[unlikely]]
            explore_switch();
    }

    // For a caller that spins until another task releases something. Yields the processor. In the simulation, returns
    // when another task has run or the clock has advanced. If only spinning tasks are left, the simulation has stalled.
    virtual void relax() = 0;

  protected:
    bool explores_switches_ = false; // switch_point() calls explore_switch(); only a constructor sets it

  private:
    virtual void explore_switch() {}
};

// Another task may run here, unless the calling task holds a spin lock. Kernel calls call it before and after an effect
// that other tasks can see.
inline void preemption_point()
{
    const task& self = current_task_of("preemption_point");
    if (self.spin_locks == 0) self.exec.switch_point();
}

// Real threads and real time. The ticks start at 0 when the executor is created.
std::unique_ptr<executor> make_threaded_executor();

// Thrown in a thread from outside when the simulation has stalled: the task that the thread waits for can never
// continue. what() names every parked task and the reason of its wait. It is an exception because the waiting calls
// cannot return an error and the only way out is to leave them all. A body that enter() ran is never resumed, because
// its caller has left. It keeps its resources, for example semaphore units or memory. Machines and the simulation can
// still be destroyed if no module is loaded.
struct stalled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class schedule;

struct simulation_options {
    uint64_t seed = 1; // for the order of tasks, if switches are explored
    uint64_t start_tick = 0;
    bool explore_switches = false;       // tasks run in an order drawn from the seed, and switch_point() may switch
    schedule* order = nullptr;           // replaces the seed; must outlive the simulation
    uint64_t patience_ticks = 3'600'000; // the simulation has stalled if a thread from outside waits longer for a task
};

// One thread and many fibers. When every task is parked, the clock jumps to the next deadline. Tasks that are ready at
// the same tick run in the order in which they became ready, unless the options choose another order. The same options
// and the same calls give the same run. A call from a second thread is a hard error.
class simulation : public executor
{
  public:
    // Called only from outside: runs the tasks until the clock reads `tick` and everything due at that tick has run.
    virtual void run_until(uint64_t tick) = 0;
    void run_for(uint64_t ticks) { run_until(now() + ticks); }

    // Called only from outside: runs everything that is due now; the clock does not move.
    virtual void settle() = 0;

    // One line with the reason of the wait for each task that is parked or spins.
    virtual std::string report() const = 0;

    // All tasks that have not ended, the oldest first. The simulation owns them until they are joined.
    virtual std::vector<task*> tasks() const = 0;
};

std::unique_ptr<simulation> make_simulation(const simulation_options& options = {});

} // namespace exec
