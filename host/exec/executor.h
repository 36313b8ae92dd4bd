// Tasks and time: what the hosted kernel needs of its host to run and to wait. Everything that blocks is written
// once on top of these calls. There are two implementations: `threaded` (real threads, the steady clock) and
// `simulated` (fibers, a clock that jumps).
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

constexpr uint64_t never = UINT64_MAX; // a deadline that does not come

class executor
{
  public:
    virtual ~executor() = default;

    // The clock in ticks of 1 ms. Any thread.
    virtual uint64_t now() const = 0;

    // Starts a task inside `home` (null: a task of the world, such as the fabric's). The executor owns the task
    // until it is joined; every task must be joined. The name is for reports. Any thread. Throws a shortage when the
    // process has no room for one more.
    virtual task& start(task_home* home, std::string name, std::function<void()> body) = 0;

    // Waits until the task has ended and frees it. Called by a task, or by a thread from outside (which in the
    // simulation runs the world meanwhile).
    virtual void join(task& ended) = 0;

    // The calling task sleeps until somebody wakes it or the clock reaches `deadline`. Returns at once when it was
    // woken since it last parked: a wake-up is never lost, several are one. `reason` (static text or text that
    // outlives the sleep) and `object` name what it waits for in reports. Spurious returns are allowed. A hard error
    // in a context that may not sleep.
    virtual void park(uint64_t deadline, const char* reason, const char* object) = 0;

    // Ends the task's sleep, or its next one. Any thread, any context; never blocks.
    virtual void wake(task& sleeper) = 0;

    // Runs `body` inside `home` as a task named `name` for a thread that comes from outside, and returns when it
    // has ended; what `body` throws comes out here. Called by a task already, runs `body` in it, with its machine
    // changed for that long.
    virtual void enter(task_home* home, const std::string& name, const std::function<void()>& body) = 0;

    // A place where another task could run next: the simulation may switch here when it explores interleavings.
    // Called at locks, unlocks and posts.
    virtual void switch_point() = 0;

    // Lets go of the processor while another task holds what the caller spins for. The simulation comes back when
    // another task has run, or the clock has moved on; spinners alone count as a stand.
    virtual void relax() = 0;
};

// Real threads and real time. Ticks start at 0 with the executor.
std::unique_ptr<executor> make_threaded_executor();

// The simulation came to a stand: a task awaited from outside cannot go on. what() names every parked task and
// what it waits for. A body that enter() ran is not resumed any more, as its caller has gone: what it holds (units of a
// semaphore, memory) stays taken. Machines and simulation can be destroyed as ever, as long as no module is loaded.
struct stalled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class schedule;

struct simulation_options {
    uint64_t seed = 1; // decides the order of tasks, when interleavings are explored
    uint64_t start_tick = 0;
    bool explore_switches = false;       // tasks run in an order drawn from the seed, and switch_point() may switch
    schedule* order = nullptr;           // decides instead; must outlive the simulation
    uint64_t patience_ticks = 3'600'000; // how long an awaited task may take before the world counts as stalled
};

// One thread, many fibers, and a clock that jumps to the next deadline when every task is parked. Tasks ready at
// one instant run in the order they became ready, unless the options name another order. The same options and the same
// calls give the same run. A call from a second thread is a hard error.
class simulation : public executor
{
  public:
    // From outside only: lets the world run until the clock reads `tick` and everything due then has run.
    virtual void run_until(uint64_t tick) = 0;
    void run_for(uint64_t ticks) { run_until(now() + ticks); }

    // From outside only: runs all that is ready at this instant, without moving the clock.
    virtual void settle() = 0;

    // Every parked task and what it waits for, a line each.
    virtual std::string report() const = 0;

    // Every task that has not ended, the oldest first; each is there until it is joined.
    virtual std::vector<task*> tasks() const = 0;
};

std::unique_ptr<simulation> make_simulation(const simulation_options& options = {});

} // namespace exec
