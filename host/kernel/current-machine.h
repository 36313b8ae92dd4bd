// The machine that the calling task runs in.
#pragma once

#include "host/exec/task.h"

struct semaphore;

namespace kernel
{

class machine;

// The machine of the calling task. A hard error that names `caller` if the task is outside of all machines.
machine& current_machine(const char* caller);

// The same at the start of a kernel call that may sleep. A hard error in a context that may not sleep. Other tasks may
// run first, as in a real kernel.
machine& machine_where_others_may_run(const char* call);

// down_interruptible() for the kernel itself: injected faults do not reach it.
int down_or_signal(semaphore* sem);

} // namespace kernel
