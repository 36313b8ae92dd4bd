// A task in which a service of a machine does its own work, and the list of all these tasks of the machine.
// stack::liveness uses the list to find a task that hangs.
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

// The service tasks of a machine. Any thread.
class service_tasks
{
  public:
    // Calls `visit` for each task. Meanwhile, add() and remove() wait.
    void visit_all(const std::function<void(service_task&)>& visit) const;

    void add(service_task& task);
    void remove(service_task& task);

  private:
    mutable std::mutex mutex_; // guards tasks_
    std::vector<service_task*> tasks_;
};

// Holds the list of a machine. Every task shares the list, because a task may be destroyed after this service.
struct service_task_list final : kernel::service {
    explicit service_task_list(kernel::machine&) {}
    const std::shared_ptr<service_tasks> tasks = std::make_shared<service_tasks>();
};

// A task of a service. The task sleeps when it has no work, and ring() wakes it. The destructor stops it.
class service_task
{
  public:
    service_task(kernel::machine& home, std::string name);
    ~service_task();
    service_task(const service_task&) = delete;
    service_task& operator=(const service_task&) = delete;

    // Starts the task, which calls `work` again and again until stop(). `work` returns std::nullopt if there may be
    // more work. Otherwise it returns a tick, and the task sleeps until that tick or until ring(). The sleep may also
    // end early without a reason. Reports show `reason` as what the task waits for; the text must outlive the task.
    // Call start() once. Does not sleep. Throws exec::shortage if the task cannot be created.
    void start(std::function<std::optional<uint64_t>()> work, const char* reason);

    // Reports new work: the task calls `work` again. Ends the task's sleep, or its next sleep if it does not sleep now.
    // Does nothing before start(). Any context.
    void ring();

    const std::string& name() const { return name_; }
    uint64_t rounds() const { return rounds_.load(std::memory_order_relaxed); } // number of calls of `work`; any thread
    bool is_current() const { return task_ && task_ == exec::current_task(); }

    // Ends the task. Waits until the current call of `work` has returned. The caller is a task that may sleep, or a
    // thread from outside (see executor::join). Once stop() has been called, no other code may call ring().
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
