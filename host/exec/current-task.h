// Sets the task that the calling thread runs, and the machine of a task. Only files of host/exec include this file.
#pragma once

#include "host/exec/task.h"

namespace exec
{

// Null means that the thread runs no task.
void set_current_task(task* task);

// While an object of this class exists, the calling task `self` is inside the machine `home` (null: outside of all
// machines). The destructor restores the previous machine. Objects may be nested.
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
