// timing.h, led to the timing service of the calling machine.
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
    timers_here(__func__); // made here, where the caller can wait: a timer may be armed where it cannot
    *timer = {};
}

void add_timing(timing_t* timer)
{
    timers_here(__func__).arm(*timer);
    // A place for the handler to run first, as it might on another processor.
    exec::preemption_point();
}

void del_timing_sync(timing_t* timer)
{
    exec::might_sleep(__func__);
    exec::current_task()->exec.switch_point();
    timers_here(__func__).disarm_and_wait(*timer);
}
