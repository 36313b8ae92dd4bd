// A task of the simulation: a fiber and its state.
#pragma once

#include <exception>
#include <functional>
#include <list>
#include <map>
#include <string>

#include "host/exec/executor.h"
#include "host/exec/fiber.h"
#include "host/exec/task.h"

namespace exec
{

struct fiber_task;

// The parked tasks that have a deadline, in the order of their deadlines (ticks). Tasks with the same deadline are in
// the order in which they parked.
using deadline_map = std::multimap<uint64_t, fiber_task*>;

enum class task_state {
    ready,     // in a queue of ready tasks, or running
    parked,    // waits for a wake-up or for its deadline
    spinning,  // in relax(): waits until another task stops running or the clock advances
    ended,     // waits for join() to free it
    abandoned, // enter() has thrown `stalled`; the task never continues
};

struct fiber_task final : task {
    fiber_task(executor& exec, task_home* home, std::string name, std::function<void()> body, fiber_stack stack,
               void (*entry)(void*))
        : task(exec, home, std::move(name)), body(std::move(body)), own_fiber(stack, entry, this)
    {
    }

    std::function<void()> body;
    std::function<step_pause()> step; // if set, the task runs steps instead of `body`
    bool has_stack = true;            // false before the first step, and after the task has put its stack back
    fiber own_fiber;
    uint64_t number = 0;                         // tasks are numbered in the order in which they start
    std::list<fiber_task*>::iterator position{}; // in the list of all tasks

    task_state state = task_state::ready;
    bool has_begun = false;
    bool has_wake_up = false;           // the next park() returns at once
    std::exception_ptr exception;       // the exception that escaped from `body`, or null
    bool may_throw = false;             // enter() passes an exception on; otherwise it is a hard error
    fiber_task* joining_task = nullptr; // the task that waits in join() for the end of this task, or null

    // Valid while parked or spinning.
    const char* reason = "";
    const char* object = "";
    uint64_t stopped_at_tick = 0;

    bool has_deadline = false;       // true if the task is in the deadline map
    deadline_map::iterator deadline; // valid if has_deadline is true
    deadline_map::node_type node;    // the map node between two sleeps: the next sleep reuses it and allocates nothing

    // Returns one line about the wait, for example "machine/name waits for down(&ats->ats_sem) since tick 20\n".
    std::string describe() const
    {
        const std::string full_name = home ? home->name() + "/" + name : name;
        const std::string activity =
            state == task_state::spinning ? "spins" : std::string("waits for ") + reason + "(" + object + ")";
        return full_name + " " + activity + " since tick " + std::to_string(stopped_at_tick) + "\n";
    }
};

} // namespace exec
