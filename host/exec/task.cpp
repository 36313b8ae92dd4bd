#include "host/exec/task.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "host/exec/current-task.h"
#include "host/exec/executor.h"

namespace exec
{

constinit thread_local task* running_task = nullptr;

void set_current_task(task* task)
{
    running_task = task;
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
