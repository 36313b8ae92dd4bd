// The simulation's task: a fiber, and what the simulation has to remember of it.
#pragma once

#include <exception>
#include <functional>
#include <list>
#include <map>
#include <string>

#include "host/exec/fiber.h"
#include "host/exec/task.h"

namespace exec
{

struct fiber_task;

// Who sleeps until when; those of one tick in the order in which they went to sleep.
using deadline_map = std::multimap<uint64_t, fiber_task*>;

enum class task_state {
    ready,     // in the ready queue, or running
    parked,    // until somebody wakes it, or its deadline
    spinning,  // until another task has run
    ended,     // not freed yet
    abandoned, // its caller has gone: it is never resumed
};

struct fiber_task final : task {
    fiber_task(executor& runs_it, task_home* home_of_task, std::string task_name, std::function<void()> work,
               fiber_stack stack, void (*entry)(void*))
        : task(runs_it, home_of_task, std::move(task_name)), body(std::move(work)), thread(stack, entry, this)
    {
    }

    std::function<void()> body;
    fiber thread;
    std::list<fiber_task*>::iterator position{}; // among all tasks

    task_state state = task_state::ready;
    bool begun = false;
    bool woken = false;              // the wake-up that the next park() takes
    std::exception_ptr failure;      // what escaped the body, for enter()
    bool failure_is_awaited = false; // enter() hands it on; elsewhere it is a panic
    fiber_task* joiner = nullptr;

    // While parked or spinning.
    const char* reason = "";
    const char* object = "";
    uint64_t stopped_at_tick = 0;
    bool has_deadline = false;
    deadline_map::iterator deadline;
    deadline_map::node_type node; // kept between sleeps, so that a sleep allocates nothing

    // "machine/name waits for down(&ats->ats_sem) since tick 20", with a line end.
    std::string describe() const
    {
        const std::string who = home ? home->name() + "/" + name : name;
        const std::string what =
            state == task_state::spinning ? "spins" : std::string("waits for ") + reason + "(" + object + ")";
        return who + " " + what + " since tick " + std::to_string(stopped_at_tick) + "\n";
    }
};

} // namespace exec
