#include "host/exec/task.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "host/exec/current-task.h"
#include "host/exec/executor.h"

namespace exec
{

namespace
{

thread_local task* running_task = nullptr;

} // namespace

task* current_task()
{
    return running_task;
}

void set_current_task(task* task)
{
    running_task = task;
}

task& current_task_of(const char* caller)
{
    task* self = current_task();
    if (!self) panic("%s is called outside of any task", caller);
    return *self;
}

void send_signal(task& task)
{
    task.signal = true;
    if (task.interruptible) task.exec.wake(task);
}

void clear_signal(task& task)
{
    task.signal = false;
}

atomic_section::atomic_section(const char* context) : outer_(current_task_of(context).atomic_context)
{
    current_task()->atomic_context = context;
}

atomic_section::~atomic_section()
{
    current_task()->atomic_context = outer_;
}

void might_sleep(const char* call)
{
    const task& self = current_task_of(call);
    if (self.atomic_context) panic("%s may sleep, and is called in %s, which may not", call, self.atomic_context);
    if (self.spin_locks > 0) panic("%s may sleep, and is called with a spin lock held", call);
}

void preemption_point()
{
    const task& self = current_task_of("preemption_point");
    if (self.spin_locks == 0) self.exec.switch_point();
}

void panic(const char* format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a false warning of clang-tidy 14
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const task* self = current_task();
    std::fprintf(stderr, "kernel panic on %s, in %s: %s\n",
                 self && self->home ? self->home->name().c_str() : "no machine", self ? self->name.c_str() : "no task",
                 text);
    std::abort();
}

} // namespace exec
