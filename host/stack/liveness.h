// Finds the tasks of a machine's stack that hang. It wakes all of them. A task that works responds within a moment.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace stack
{

// Call it from outside of the machine, in one thread. The machine outlives it. Neither call waits for a task.
class liveness
{
  public:
    explicit liveness(kernel::machine& home) : home_(home) {}

    // Wakes every task.
    void ask();

    // Returns the names of the tasks, and of GSI's completion contexts, that have made no progress since ask(). Either
    // a handler or callback of a module has been running since then, or the task waits for ever.
    std::vector<std::string> silent() const;

  private:
    kernel::machine& home_;
    std::map<std::string, uint64_t> rounds_;  // of each task
    std::map<std::string, uint64_t> batches_; // of each completion context that was running
};

} // namespace stack
