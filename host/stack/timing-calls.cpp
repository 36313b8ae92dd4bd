// Implements timing.h with the calling machine's timing service.
#include "host/stack/timers.h"

namespace
{

stack::timers& current_timers(const char* call)
{
    return kernel::current_machine(call).get<stack::timers>();
}

} // namespace

void init_timing(timing_t* timer)
{
    current_timers(__func__); // creates the service if it is missing: the creation may sleep, but add_timing() must not
    *timer = {};
}

void add_timing(timing_t* timer)
{
    current_timers(__func__).arm(*timer);
    exec::preemption_point(); // the handler may run before add_timing() returns, as it could on another processor
}

void del_timing_sync(timing_t* timer)
{
    exec::might_sleep(__func__);
    exec::current_task()->exec.switch_point();
    current_timers(__func__).disarm_and_wait(*timer);
}
