// A task that a service uses for its own work, and the list of all such tasks of a machine. The list serves to find a
// task that hangs.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace stack
{

class service_task;

// All tasks of a machine, for the liveness check. Any thread.
class service_tasks
{
  public:
    // Calls `visit` for each task. Meanwhile, no task can be added or removed.
    void visit_all(const std::function<void(service_task&)>& visit) const;

    void add(service_task& task);
    void remove(service_task& task);

  private:
    mutable std::mutex mutex_; // guards tasks_
    std::vector<service_task*> tasks_;
};

// Owns the list of a machine. Every task shares it, because the task may be destroyed after this service.
struct service_task_list final : kernel::service {
    explicit service_task_list(kernel::machine&) {}
    const std::shared_ptr<service_tasks> tasks = std::make_shared<service_tasks>();
};

// ring() wakes the task when there is work. The task ends with its service.
class service_task
{
  public:
    service_task(kernel::machine& home, std::string name);
    ~service_task();
    service_task(const service_task&) = delete;
    service_task& operator=(const service_task&) = delete;

    // Starts the task, which calls `work` until stop(). Without work to do, `work` returns the tick until which the
    // task sleeps. ring() ends the sleep, and it may end early. `reason` names in reports what the task waits for, and
    // must outlive it. Call it once; it does not sleep. Throws a shortage if the task cannot be created.
    void start(std::function<std::optional<uint64_t>()> work, const char* reason);

    // Reports new work. Ends the task's sleep; if it does not sleep, ends its next sleep. Any context. Does nothing
    // before start().
    void ring();

    const std::string& name() const { return name_; }
    uint64_t rounds() const { return rounds_.load(std::memory_order_relaxed); } // calls of `work`; any thread
    bool is_current() const { return task_ && task_ == exec::current_task(); }

    // Waits until the last call of `work` has returned. ring() must not be called from now on. The caller is a task
    // that may sleep, or is outside.
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
