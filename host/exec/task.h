// One task: a thread of execution. Most tasks run inside a machine.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct wait_queue_t;

// The part of the task that the module headers know. Entries of wait queues point to it.
struct kernel_task_t {
};

namespace exec
{

class executor;
class print_capture;

// The machine in which a task runs. Tasks only need its name, for reports. kernel::machine derives from this class.
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
    task(executor& exec, task_home* home, std::string name) : exec(exec), home(home), name(std::move(name)) {}
    task(const task&) = delete;
    task& operator=(const task&) = delete;

    executor& exec;
    task_home* home; // null outside of all machines; only the task itself writes it
    const std::string name;

    std::atomic<bool> signal{false};        // a signal is pending
    std::atomic<bool> interruptible{false}; // parked in a sleep that a signal ends

    // Only the task itself reads and writes the following members.
    const char* atomic_context = nullptr;     // the innermost context that may not sleep, or null
    int spin_locks = 0;                       // number of spin locks that the task holds
    const wait_queue_t* wait_entry = nullptr; // the task's entry in the wait queue that it joined last, or null
    print_capture* capture = nullptr;         // keeps the texts that the task prints, or null

  protected:
    ~task() = default;
};

// The task of the calling thread or fiber. Only current_task() and set_current_task() use it.
extern constinit thread_local task* running_task;

// The task of the calling thread or fiber; null in a thread that runs no task.
inline task* current_task()
{
    return running_task;
}

// A hard error: ends the process with abort(), because the kernel or its caller has broken an invariant. Prints the
// text, the task and its machine to stderr. Any thread.
[[noreturn]] void panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The calling task. If the thread runs no task, this is a hard error that names `caller`.
inline task& current_task_of(const char* caller)
{
    task* self = current_task();
    if (!self) [[unlikely]]
        panic("%s is called outside of any task", caller);
    return *self;
}

// Sends the task a signal. The signal ends an interruptible sleep and stays pending until clear_signal(). Any thread.
void send_signal(task& task);
void clear_signal(task& task);

// While an object of this class exists, the calling task may not sleep. A blocking call is then a hard error that names
// the call and `context`. The text `context` must outlive the object. Objects may be nested.
class atomic_section
{
  public:
    explicit atomic_section(const char* context) : outer_(current_task_of(context).atomic_context)
    {
        current_task()->atomic_context = context;
    }
    ~atomic_section() { current_task()->atomic_context = outer_; }
    atomic_section(const atomic_section&) = delete;
    atomic_section& operator=(const atomic_section&) = delete;

  private:
    const char* outer_;
};

// Every call that may put a task to sleep calls this first. `call` is its name, or the reason of a park(). It is a hard
// error if the calling task may not sleep now, or holds a spin lock.
inline void might_sleep(const char* call)
{
    const task& self = current_task_of(call);
    if (self.atomic_context) [[unlikely]]
        panic("%s may sleep, and is called in %s, which may not", call, self.atomic_context);
    if (self.spin_locks > 0) [[unlikely]]
        panic("%s may sleep, and is called with a spin lock held", call);
}

} // namespace exec
