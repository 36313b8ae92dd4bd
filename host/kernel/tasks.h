// Makes some names of host/exec available in namespace kernel.
#pragma once

#include "host/exec/executor.h"
#include "host/exec/task.h"

namespace kernel
{

using exec::atomic_section;
using exec::clear_signal;
using exec::current_task;
using exec::current_task_of;
using exec::executor;
using exec::might_sleep;
using exec::never;
using exec::panic;
using exec::preemption_point;
using exec::send_signal;
using exec::task;

} // namespace kernel
