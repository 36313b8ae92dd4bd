// Finds the tasks of a machine's stack that hang: all are woken, and each that works takes note of that within a
// moment.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace stack
{

// Call from outside of the machine, which lives on; one thread. Neither call waits for a task.
class liveness
{
  public:
    explicit liveness(kernel::machine& home) : home_(home) {}

    // Wakes every task.
    void ask();

    // The names of the tasks, and of the completion contexts of GSI, that have made no progress since ask(). A handler
    // or callback of a module runs for as long, or the task waits for ever.
    std::vector<std::string> silent() const;

  private:
    kernel::machine& home_;
    std::map<std::string, uint64_t> rounds_;  // by task
    std::map<std::string, uint64_t> batches_; // by completion context that was running
};

} // namespace stack
