// One machine in simulated time, for tests of kernel calls. A test starts tasks at given ticks.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "kernel/sync.h"
#include "kernel/time.h"

struct one_machine {
    explicit one_machine(const exec::simulation_options& options = {}) : sim(exec::make_simulation(options)) {}
    ~one_machine() { finish(); }

    // Starts a task that calls `body` at `tick`, or at once if that tick is over.
    exec::task& at(uint64_t tick, const std::string& name, std::function<void()> body)
    {
        tasks.push_back(&host.start(name, [tick, body = std::move(body)] {
            const uint64_t now = get_jiffies();
            if (now < tick) schedule_timeout_uninterruptible(tick - now);
            body();
        }));
        return *tasks.back();
    }

    // Runs `body` in a task of the machine and returns when `body` has ended.
    void run(const std::function<void()>& body) { host.enter("test", body); }

    // Waits for all tasks, the latest first. The body of a task may use earlier tasks, so these must still exist.
    void finish()
    {
        for (; !tasks.empty(); tasks.pop_back()) sim->join(*tasks.back());
    }

    std::unique_ptr<exec::simulation> sim;
    kernel::machine host{*sim, "node1", {.random_seed = 1}};
    std::vector<exec::task*> tasks;
};
