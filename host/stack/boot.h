// Starts the tasks of a machine's stack before a module is loaded.
#pragma once

#include "host/kernel/machine.h"

namespace stack
{

// Starts the tasks of the timers, and those of verbs and GSI for every HCA that is plugged. Calls of modules then start
// no task; most of them could not report a shortage. Throws a shortage when there is no room for a task. Once for a
// machine.
void boot(kernel::machine& home);

} // namespace stack
