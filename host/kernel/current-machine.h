// The machine in which the calling task runs.
#pragma once

#include "host/exec/task.h"

struct semaphore;

namespace kernel
{

class machine;

// Returns the machine of the calling task. A hard error that names `caller` if the task is outside of all machines.
machine& current_machine(const char* caller);

// Does the same at the start of a kernel call that may sleep. A hard error in a context that may not sleep. As in a
// real kernel, other tasks may run first.
machine& machine_where_others_may_run(const char* call);

// The same as down_interruptible(), but for the kernel itself: injected faults do not affect it.
int down_or_signal(semaphore* sem);

} // namespace kernel
