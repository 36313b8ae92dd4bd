// A task that a service keeps for its own work, and the list of all such tasks of a machine. In the list, one that
// hangs can be found.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace stack
{

class service_task;

// All of a machine, for the liveness check. Any thread.
class service_tasks
{
  public:
    // Calls `visit` for each task; none can be added or removed meanwhile.
    void visit_all(const std::function<void(service_task&)>& visit) const;

    void add(service_task& task);
    void remove(service_task& task);

  private:
    mutable std::mutex mutex_; // guards tasks_
    std::vector<service_task*> tasks_;
};

// Holds the list of a machine. Every task holds it too, as it may be destroyed after this service.
struct service_task_list final : kernel::service {
    explicit service_task_list(kernel::machine&) {}
    const std::shared_ptr<service_tasks> tasks = std::make_shared<service_tasks>();
};

// ring() wakes it when there is work. It ends with the service.
class service_task
{
  public:
    service_task(kernel::machine& home, std::string name);
    ~service_task();
    service_task(const service_task&) = delete;
    service_task& operator=(const service_task&) = delete;

    // Starts the task. `body` does its work and calls sleep(), in turn, while goes_on(). Once only; does not sleep.
    // Throws a shortage when there is no room for a task.
    void start(std::function<void()> body);

    // There is work: ends the task's sleep, or its next one. Any context. Has no effect before start().
    void ring();

    // By the task itself: sleeps until ring() or until the clock reaches `deadline`; may return early.
    void sleep(uint64_t deadline, const char* reason) const;

    // By the task itself, once a round. False: stop() was called.
    bool goes_on()
    {
        rounds_.fetch_add(1, std::memory_order_relaxed);
        return !is_stopping_;
    }
    const std::string& name() const { return name_; }
    uint64_t rounds() const { return rounds_.load(std::memory_order_relaxed); } // any thread
    bool is_current() const { return task_ && task_ == exec::current_task(); }

    // Waits until the body has ended. There must be no ring() from now on. By a task that may sleep, or from outside.
    void stop();

  private:
    kernel::machine& home_;
    const std::string name_;
    const std::shared_ptr<service_tasks> all_tasks_;
    std::atomic<exec::task*> task_{nullptr};
    std::atomic<bool> is_stopping_{false};
    std::atomic<uint64_t> rounds_{0};
};

} // namespace stack
