// For executors: says which task the calling thread runs.
#pragma once

#include "host/exec/task.h"

namespace exec
{

void set_current_task(task* running);

// Runs the calling task inside another machine for as long as it lives.
class inside_machine
{
  public:
    inside_machine(task& self, task_home* home) : self_(self), outer_(self.home) { self_.home = home; }
    ~inside_machine() { self_.home = outer_; }
    inside_machine(const inside_machine&) = delete;
    inside_machine& operator=(const inside_machine&) = delete;

  private:
    task& self_;
    task_home* outer_;
};

} // namespace exec
