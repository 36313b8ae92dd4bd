#include "host/stack/service-task.h"

#include <cassert>

#include "host/exec/brief-lock.h"

namespace stack
{

service_task::service_task(kernel::machine& home, std::string name)
    : home_(home), name_(std::move(name)), all_tasks_(home.get<service_task_list>().tasks)
{
    all_tasks_->add(*this);
}

service_task::~service_task()
{
    all_tasks_->remove(*this);
    stop();
}

void service_task::start(std::function<std::optional<uint64_t>()> work, const char* reason)
{
    assert(!task_);
    const auto step = [this, work = std::move(work), reason]() -> exec::step_pause {
        while (!is_stopping_) {
            exec::count(rounds_);
            const std::optional<uint64_t> deadline = work();
            if (deadline && !is_stopping_) return {.deadline = *deadline, .reason = reason, .object = name_.c_str()};
        }
        return {.deadline = exec::never, .reason = "", .object = "", .is_last = true};
    };
    task_ = &home_.exec().start_steps(&home_, name_, step);
    ring(); // repeats calls that other threads made before task_ was set: these calls did nothing
}

void service_task::ring()
{
    exec::task* task = task_;
    if (task) home_.exec().wake(*task);
}

void service_task::stop()
{
    is_stopping_ = true;
    ring();
    exec::task* task = task_.exchange(nullptr);
    if (task) home_.exec().join(*task);
}

void service_tasks::visit_all(const std::function<void(service_task&)>& visit) const
{
    const std::lock_guard lock(mutex_);
    for (service_task* task : tasks_) visit(*task);
}

void service_tasks::add(service_task& task)
{
    const std::lock_guard lock(mutex_);
    tasks_.push_back(&task);
}

void service_tasks::remove(service_task& task)
{
    const std::lock_guard lock(mutex_);
    std::erase(tasks_, &task);
}

} // namespace stack
