// One task: a thread of execution inside a machine.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct wait_queue_t;

// The part of the task that the module headers know. Wait queues and semaphores point to it.
struct kernel_task_t {
};

namespace exec
{

class executor;
class print_capture;

// The machine in which a task runs. Tasks only need its name, for reports. The kernel derives its machines from it.
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
    int spin_locks = 0;                       // number of spin locks that it holds
    const wait_queue_t* wait_queue = nullptr; // its entry in the wait queue that it joined last, or null
    print_capture* capture = nullptr;         // receives the texts that it prints, or null

  protected:
    ~task() = default;
};

// The task of the calling thread or fiber; null in a thread from outside.
task* current_task();

// The calling task. A hard error that names `caller` if there is none.
task& current_task_of(const char* caller);

// Sends the task a signal. The signal ends an interruptible sleep and stays pending until clear_signal(). Any thread.
void send_signal(task& task);
void clear_signal(task& task);

// During its lifetime, the calling task may not sleep: a blocking call is a hard error that names the call and
// `context`. The text must outlive it.
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

// Every call that may block begins with this call. A hard error in a context that may not sleep.
void might_sleep(const char* call);

// Another task may run here, unless the calling task holds a spin lock. Kernel calls call it before and after an effect
// that other tasks can see.
void preemption_point();

// Ends the process because an invariant of the kernel or of its user is broken. Prints the text, the task and its
// machine to stderr. Any thread.
[[noreturn]] void panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace exec
