// Brings up what a machine's stack needs to run, before a module is loaded.
#pragma once

#include "host/kernel/machine.h"

namespace stack
{

// Starts the tasks of the timers and, for every HCA that is plugged, those of verbs and GSI. Modules then start none by
// their calls, most of which could not report that there is no room for a task. Throws a shortage when there is none.
void boot(kernel::machine& home);

} // namespace stack
