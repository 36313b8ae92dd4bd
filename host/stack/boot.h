// Starts the tasks of a machine's stack (timers, verbs, GSI) before a module is loaded.
#pragma once

#include "host/kernel/machine.h"

namespace stack
{

// Starts the tasks of the timers, and for every plugged HCA the tasks of verbs and GSI. Modules that call the stack
// later then start no task. This matters because most of their calls could not report that a task cannot be created.
// Throws exec::shortage if a task cannot be created. Call boot() once for a machine, after its HCAs are plugged.
void boot(kernel::machine& home);

} // namespace stack
