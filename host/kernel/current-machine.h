// The machine that the calling task runs in.
#pragma once

#include "host/exec/task.h"

struct semaphore;

namespace kernel
{

class machine;

// The machine of the calling task. A call from outside of any machine is a hard error that names the `caller`.
machine& current_machine(const char* caller);

// The same at the start of a kernel call that may sleep: checks that the context may, and lets other tasks run first,
// as a real kernel might.
machine& machine_where_others_may_run(const char* call);

// down_interruptible() for the kernel's own use: no injected fault fails it.
int down_or_signal(semaphore* sem);

} // namespace kernel
