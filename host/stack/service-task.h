// A task that a service keeps for its own work. ring() wakes it when there is work; it ends with the service.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "host/kernel/machine.h"

namespace stack
{

class service_task
{
  public:
    service_task(kernel::machine& home, std::string name) : home_(home), name_(std::move(name)) {}
    ~service_task() { stop(); }
    service_task(const service_task&) = delete;
    service_task& operator=(const service_task&) = delete;

    // Starts the task. `body` does its work and calls sleep(), in turn, until is_stopping(). Once only; does not sleep.
    // Throws a shortage when there is no room for a task.
    void start(std::function<void()> body);

    // There is work: ends the task's sleep, or its next one. Any context. Has no effect before start().
    void ring();

    // By the task itself: sleeps until ring() or until the clock reaches `deadline`; may return early.
    void sleep(uint64_t deadline, const char* reason) const;

    bool is_stopping() const { return is_stopping_; }
    bool is_current() const { return task_ && task_ == exec::current_task(); }

    // Waits until the body has ended. There must be no ring() from now on. By a task that may sleep, or from outside.
    void stop();

  private:
    kernel::machine& home_;
    const std::string name_;
    std::atomic<exec::task*> task_{nullptr};
    std::atomic<bool> is_stopping_{false};
};

} // namespace stack
