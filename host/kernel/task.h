// One task: a thread of execution inside a machine.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct semaphore;
struct wait_queue_t;

// What wait queues and semaphores of the module-facing headers point at.
struct kernel_task_t {
};

namespace kernel
{

class executor;
class print_capture;
class machine;

struct task : kernel_task_t {
    task(executor& runs_it, machine* home_machine, std::string task_name)
        : exec(runs_it), home(home_machine), name(std::move(task_name))
    {
    }
    task(const task&) = delete;
    task& operator=(const task&) = delete;

    executor& exec;
    machine* home; // written by the task itself only
    const std::string name;

    std::atomic<bool> signal{false};        // a signal is pending
    std::atomic<bool> interruptible{false}; // parked in a sleep that a signal ends

    // The innermost context entered that may not sleep, or null; `spin_locks` counts those held. The task's own.
    const char* atomic_context = nullptr;
    int spin_locks = 0;
    const wait_queue_t* wait_queue = nullptr; // its place in the queue it joined last; the task's own

    print_capture* capture = nullptr; // who else wants what the task prints; the task's own

  protected:
    ~task() = default;
};

// The task of the calling thread or fiber; null on a thread from outside.
task* current_task();

// The calling task. A call from outside of any task is a hard error naming the `caller`.
task& current_task_of(const char* caller);

// The machine of the calling task. A call from outside of any machine is a hard error naming the `caller`.
machine& current_machine(const char* caller);

// Sends a signal: it stays pending until clear_signal, and ends an interruptible sleep. Any thread.
void send_signal(task& to);
void clear_signal(task& of);

// A stretch of code that may not sleep. Blocking calls made inside are hard errors naming both.
class atomic_section
{
  public:
    explicit atomic_section(const char* context);
    ~atomic_section();
    atomic_section(const atomic_section&) = delete;
    atomic_section& operator=(const atomic_section&) = delete;

  private:
    const char* outer_;
};

// Every call that may block begins with this: a hard error in a context that may not sleep.
void might_sleep(const char* call);

// The same for a call of a module. The calling machine: where a call may sleep in a real kernel, others may run.
machine& machine_where_others_may_run(const char* call);

// down_interruptible() for the kernel's own use: no injected fault fails it.
int down_or_signal(semaphore* sem);

// A place where another task could run next, unless the calling task excludes others with a spin lock. Kernel calls
// have one before and behind what others can see of them.
void preemption_point();

// An invariant of the kernel or of its user is broken: prints the text, the task and its machine, and aborts.
[[noreturn]] void panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace kernel
