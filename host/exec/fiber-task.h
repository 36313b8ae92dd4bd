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

// The sleeping tasks by deadline. Tasks with the same deadline are in the order in which they went to sleep.
using deadline_map = std::multimap<uint64_t, fiber_task*>;

enum class task_state {
    ready,     // in a queue of ready tasks, or running
    parked,    // until it is woken or its deadline is reached
    spinning,  // until another task has run
    ended,     // but not freed yet
    abandoned, // its caller has left; it is never resumed
};

struct fiber_task final : task {
    fiber_task(executor& exec, task_home* home, std::string name, std::function<void()> body, fiber_stack stack,
               void (*entry)(void*))
        : task(exec, home, std::move(name)), body(std::move(body)), thread(stack, entry, this)
    {
    }

    std::function<void()> body;
    std::function<rest()> step; // if set, the task takes steps instead of the body
    bool has_stack = true;      // false: it rests between two steps, or before the first
    fiber thread;
    uint64_t number = 0;                         // tasks are numbered in the order in which they start
    std::list<fiber_task*>::iterator position{}; // in the list of all tasks

    task_state state = task_state::ready;
    bool has_begun = false;
    bool has_wake_up = false;           // ends the next park()
    std::exception_ptr exception;       // escaped from the body
    bool may_throw = false;             // enter() passes the exception on; in other tasks it is a hard error
    fiber_task* joining_task = nullptr; // waits for the end of this task

    // Valid while parked or spinning.
    const char* reason = "";
    const char* object = "";
    uint64_t stopped_at_tick = 0;
    bool has_deadline = false;
    deadline_map::iterator deadline;
    deadline_map::node_type node; // kept between sleeps; therefore a sleep does not allocate

    // Describes the wait, for example "machine/name waits for down(&ats->ats_sem) since tick 20", with a line end.
    std::string describe() const
    {
        const std::string full_name = home ? home->name() + "/" + name : name;
        const std::string activity =
            state == task_state::spinning ? "spins" : std::string("waits for ") + reason + "(" + object + ")";
        return full_name + " " + activity + " since tick " + std::to_string(stopped_at_tick) + "\n";
    }
};

} // namespace exec
