// Implements timing.h with the calling machine's timing service.
#include "host/stack/timers.h"

namespace
{

stack::timers& timers_here(const char* call)
{
    return kernel::current_machine(call).get<stack::timers>();
}

} // namespace

void init_timing(timing_t* timer)
{
    timers_here(__func__); // creates the service here, because this may sleep and add_timing() must not
    *timer = {};
}

void add_timing(timing_t* timer)
{
    timers_here(__func__).arm(*timer);
    exec::preemption_point(); // the handler may run before the return, as if on another processor
}

void del_timing_sync(timing_t* timer)
{
    exec::might_sleep(__func__);
    exec::current_task()->exec.switch_point();
    timers_here(__func__).disarm_and_wait(*timer);
}
