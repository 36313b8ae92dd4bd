#include "host/kernel/current-machine.h"

#include "host/kernel/machine.h"

namespace kernel
{

machine& current_machine(const char* caller)
{
    auto* home = static_cast<machine*>(current_task_of(caller).home);
    if (!home) panic("%s is called outside of any machine", caller);
    return *home;
}

machine& machine_where_others_may_run(const char* call)
{
    might_sleep(call);
    machine& home = current_machine(call);
    home.exec().switch_point();
    return home;
}

} // namespace kernel
