// Tasks and time. The hosted kernel starts tasks, waits and reads the clock only through these calls. There are two
// implementations: make_threaded_executor() (real threads, the steady clock) and make_simulation() (fibers, a clock
// that jumps).
//
// A thread from outside is a thread that runs no task, for example the main thread of a program or of a test. A hard
// error ends the process (exec::panic).
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

// The result of one step of a task (see executor::start_steps). Before the next step, the task sleeps as if it called
// executor::park with the first three members.
struct step_pause {
    uint64_t deadline;
    const char* reason;
    const char* object;
    bool is_last = false; // if true, the task ends and does not park
};

// Comments that say "any thread" are true only for the threaded executor. Only one thread may use a simulation (see
// class simulation below).
class executor
{
  public:
    virtual ~executor() = default;

    // The clock in ticks of 1 ms. Any thread.
    virtual uint64_t now() const = 0;

    // Starts a task that runs `body` inside the machine `home`. A null `home` is for tasks outside of all machines, for
    // example those of the fabric. The executor owns the task until join() frees it. Every task must be joined. The
    // name appears in reports. Any thread. Throws a shortage if the process cannot create another task.
    virtual task& start(task_home* home, std::string name, std::function<void()> body) = 0;

    // Starts a task that calls `step` again and again. After each call the task parks, or ends, as the returned
    // step_pause says. In all other respects this is a task like those of start(). In the simulation, such a task needs
    // no stack while it is parked between two steps. Therefore the tasks of thousands of hosts fit into one process.
    virtual task& start_steps(task_home* home, std::string name, std::function<step_pause()> step) = 0;

    // Waits until `task` has ended, and frees it. The caller is a task that may sleep, or a thread from outside. In the
    // simulation, a join from outside runs all tasks while it waits, and throws `stalled` if `task` cannot end.
    virtual void join(task& task) = 0;

    // Puts the calling task to sleep until wake() is called for it, or until the clock reaches `deadline` (a tick). If
    // wake() was called since the last park() of this task, returns at once. Several wake-ups count as one. park() may
    // also return too early, so the caller must check its condition again. In reports, `reason` and `object` describe
    // the wait. Both texts must stay valid during the sleep. It is a hard error to call park() in a context that may
    // not sleep.
    virtual void park(uint64_t deadline, const char* reason, const char* object) = 0;

    // Ends the sleep of `task`. If `task` is not asleep, its next park() returns at once. Any thread, any context;
    // never blocks.
    virtual void wake(task& task) = 0;

    // Runs `body` inside the machine `home`, and returns when `body` has ended. If a thread from outside calls enter(),
    // a task named `name` runs `body`. If a task calls enter(), this task runs `body` itself. An exception of `body`
    // reaches the caller. In the simulation, a call from outside throws `stalled` if `body` cannot end, and a shortage
    // if no task can be created.
    virtual void enter(task_home* home, const std::string& name, const std::function<void()>& body) = 0;

    // A simulation that explores interleavings may switch to another task here. Otherwise the call does nothing and
    // costs one load. The kernel calls it often, for example at every lock and unlock.
    void switch_point()
    {
        if (explores_switches_) [[unlikely]]
            explore_switch();
    }

    // Call this in a loop that spins until another task releases something. Yields the processor. In the simulation,
    // returns when another task has stopped running or the clock has advanced. If all tasks spin or wait without a
    // deadline, the simulation has stalled.
    virtual void relax() = 0;

  protected:
    bool explores_switches_ = false; // if true, switch_point() calls explore_switch(); set by constructors only

  private:
    virtual void explore_switch() {}
};

// Calls switch_point() if the calling task holds no spin lock. Functions of the kernel call this before and after an
// effect that other tasks can see.
inline void preemption_point()
{
    const task& self = current_task_of("preemption_point");
    if (self.spin_locks == 0) self.exec.switch_point();
}

// Real threads and real time. The ticks start at 0 when the executor is created.
std::unique_ptr<executor> make_threaded_executor();

// The simulation throws this in a thread from outside, in three cases: the thread waits for a task that can never end;
// the thread has waited for a task for simulation_options::patience_ticks; or the thread calls relax() and no task can
// run. what() names every parked or spinning task, and the reason why a parked task waits. This is an exception, not an
// ats::result, because the waiting calls of the kernel cannot return an error.
//
// If enter() throws this exception, the task that ran `body` never continues, because `body` uses variables of the
// caller. Resources of that task are not released, for example semaphore units or memory. Machines and the simulation
// can still be destroyed if no module is loaded.
struct stalled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class schedule;

struct simulation_options {
    uint64_t seed = 1; // used with explore_switches
    uint64_t start_tick = 0;

    // If true, the order of tasks is drawn from the seed, and switch_point() may switch to another task.
    bool explore_switches = false;

    // If not null, this schedule chooses the order of tasks, also at switch_point(). The seed and explore_switches then
    // have no effect. The schedule must outlive the simulation.
    schedule* order = nullptr;

    // If a thread from outside waits longer than this for a task, the simulation counts as stalled.
    uint64_t patience_ticks = 3'600'000;
};

// One thread runs all tasks, each as a fiber. When every task is parked, the clock jumps to the next deadline. Tasks
// that are ready at the same tick run in the order in which they became ready; the options can choose another order.
// The same options and the same calls give the same run. All calls must come from the thread that made the simulation.
// A call that starts, wakes or runs tasks is a hard error in any other thread.
class simulation : public executor
{
  public:
    // Runs the tasks until the clock reads `tick` and everything due at that tick has run. A task must not call it.
    virtual void run_until(uint64_t tick) = 0;
    void run_for(uint64_t ticks) { run_until(now() + ticks); }

    // Runs everything that is due now. The clock does not move. A task must not call it.
    virtual void settle() = 0;

    // One line for each task that is parked or spins. The line says what a parked task waits for.
    virtual std::string report() const = 0;

    // All tasks that have not ended, the oldest first. Omits a task whose enter() has thrown `stalled`. A pointer is
    // valid until its task is joined.
    virtual std::vector<task*> tasks() const = 0;
};

std::unique_ptr<simulation> make_simulation(const simulation_options& options = {});

} // namespace exec
