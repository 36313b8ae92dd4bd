// Starts the tasks of a machine's stack before a module is loaded.
#pragma once

#include "host/kernel/machine.h"

namespace stack
{

// Starts the tasks of the timers, and for every plugged HCA those of verbs and GSI. Later calls of modules then start
// no task; most of these calls could not report a shortage. Throws a shortage if a task cannot be created. Call it once
// for a machine.
void boot(kernel::machine& home);

} // namespace stack
