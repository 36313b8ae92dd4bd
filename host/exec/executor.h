// Tasks and time: the calls by which the hosted kernel runs and waits. Everything that blocks is written once on top of
// them. There are two implementations: `threaded` (real threads, the steady clock) and `simulated` (fibers, a clock
// that jumps).
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

class executor
{
  public:
    virtual ~executor() = default;

    // The clock in ticks of 1 ms. Any thread.
    virtual uint64_t now() const = 0;

    // Starts a task inside `home`; a null `home` is for tasks outside of all machines, such as the fabric's. The
    // executor owns the task until it is joined, and every task must be joined. The name appears in reports. Any
    // thread. Throws a shortage when the process has no room for another task.
    virtual task& start(task_home* home, std::string name, std::function<void()> body) = 0;

    // Waits until the task has ended, and frees it. Called by a task, where it may sleep, or by a thread from outside.
    // In the simulation, that thread runs the tasks meanwhile; it throws `stalled` if the task cannot end.
    virtual void join(task& task) = 0;

    // The calling task sleeps until it is woken or the clock reaches `deadline`. Returns at once if it was woken after
    // it last parked: no wake-up is lost, but several count as one. May return early for no reason. `reason` and
    // `object` name in reports what the task waits for, and must outlive the sleep. A hard error in a context that may
    // not sleep.
    virtual void park(uint64_t deadline, const char* reason, const char* object) = 0;

    // Ends the task's sleep, or its next one. Any thread, any context; never blocks.
    virtual void wake(task& task) = 0;

    // Runs `body` inside `home` as a task named `name`, for a thread from outside, and returns when it has ended.
    // A calling task runs `body` itself, and is inside `home` for that long. Passes on exceptions of `body`. In the
    // simulation, throws `stalled` if the body cannot end, and a shortage when there is no room for a task.
    virtual void enter(task_home* home, const std::string& name, const std::function<void()>& body) = 0;

    // Another task may run here: the simulation may switch when it explores interleavings. Called at locks, unlocks and
    // posts.
    virtual void switch_point() = 0;

    // Yields the processor while another task holds what the caller spins for. In the simulation, returns when another
    // task has run or the clock has moved on. If only spinning tasks are left, the simulation has stalled.
    virtual void relax() = 0;
};

// Real threads and real time. Ticks start at 0 with the executor.
std::unique_ptr<executor> make_threaded_executor();

// Thrown in a thread from outside when the simulation has stalled: the task that the thread waits for cannot go on.
// what() names every parked task and what it waits for. An exception, because the calls that wait cannot report it and
// nothing can be done except to leave them all. A body that enter() ran is never resumed, as its caller has gone; what
// it holds, such as units of a semaphore or memory, stays held. Machines and the simulation can still be destroyed,
// provided that no module is loaded.
struct stalled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class schedule;

struct simulation_options {
    uint64_t seed = 1; // of the order of tasks, if switches are explored
    uint64_t start_tick = 0;
    bool explore_switches = false;       // tasks run in an order drawn from the seed, and switch_point() may switch
    schedule* order = nullptr;           // takes the place of the seed; must outlive the simulation
    uint64_t patience_ticks = 3'600'000; // the simulation has stalled if a task is awaited for longer
};

// One thread, many fibers, and a clock that jumps to the next deadline when every task is parked. Tasks that are ready
// at one instant run in the order in which they became ready, unless the options name another order. The same options
// and the same calls give the same run. A call from a second thread is a hard error.
class simulation : public executor
{
  public:
    // From outside only: runs the tasks until the clock reads `tick` and everything due at that tick has run.
    virtual void run_until(uint64_t tick) = 0;
    void run_for(uint64_t ticks) { run_until(now() + ticks); }

    // From outside only: runs everything that is due now; the clock does not move.
    virtual void settle() = 0;

    // One line for each task that is parked or spins: what it waits for.
    virtual std::string report() const = 0;

    // All tasks that have not ended, the oldest first. They belong to the simulation until they are joined.
    virtual std::vector<task*> tasks() const = 0;
};

std::unique_ptr<simulation> make_simulation(const simulation_options& options = {});

} // namespace exec
