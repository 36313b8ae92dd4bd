// Finds tasks of a machine's stack that hang. ask() wakes all tasks. A task that does not hang then soon begins another
// round of its work. silent() names the tasks that have begun no round.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace stack
{

// Use an object from one thread outside of the machine. The machine must outlive the object. No call waits for a task.
class liveness
{
  public:
    explicit liveness(kernel::machine& home) : home_(home) {}

    // Wakes every task, and notes its progress.
    void ask();

    // Returns the names of the tasks that have begun no round since the last ask(), and of GSI's completion contexts
    // that have been in the same batch since then. Such a task or context hangs, or a handler or callback of a module
    // has kept it busy for all this time. An idle context is not named. The caller decides how much time passes between
    // ask() and silent().
    std::vector<std::string> silent() const;

  private:
    kernel::machine& home_;
    std::map<std::string, uint64_t> rounds_; // service_task::rounds() of each task at ask()
    // For each completion context, gsi_adapter::batch_in_work() at ask(): 0 if the context did not run.
    std::map<std::string, uint64_t> batches_;
};

} // namespace stack
