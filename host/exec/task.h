// One task: a thread of execution inside a machine.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct wait_queue_t;

// What wait queues and semaphores of the module-facing headers point at.
struct kernel_task_t {
};

namespace exec
{

class executor;
class print_capture;

// The machine that a task runs in, as far as tasks must know it: its name, for reports. A layer above derives from it.
class task_home
{
  public:
    explicit task_home(std::string name) : name_(std::move(name)) {}
    task_home(const task_home&) = delete;
    task_home& operator=(const task_home&) = delete;

    const std::string& name() const { return name_; }

  protected:
    ~task_home() = default;

  private:
    const std::string name_;
};

struct task : kernel_task_t {
    task(executor& runs_it, task_home* home_of_task, std::string task_name)
        : exec(runs_it), home(home_of_task), name(std::move(task_name))
    {
    }
    task(const task&) = delete;
    task& operator=(const task&) = delete;

    executor& exec;
    task_home* home; // written by the task itself only
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

// A place where another task could run next, unless the calling task excludes others with a spin lock. Kernel calls
// have one before and behind what others can see of them.
void preemption_point();

// An invariant of the kernel or of its user is broken: prints the text, the task and its machine, and aborts.
[[noreturn]] void panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace exec
