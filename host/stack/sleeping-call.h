// The beginning of every stack call that may sleep.
#pragma once

#include "host/kernel/machine.h"

namespace stack
{

// The calling machine. Where a call may sleep in a real kernel, others may run.
inline kernel::machine& machine_where_others_may_run(const char* call)
{
    kernel::might_sleep(call);
    kernel::machine& home = kernel::current_machine(call);
    home.exec().switch_point();
    return home;
}

} // namespace stack
