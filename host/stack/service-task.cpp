#include "host/stack/service-task.h"

#include <cassert>

namespace stack
{

void service_task::start(std::function<void()> body)
{
    assert(!task_);
    task_ = &home_.start(name_, std::move(body));
    ring(); // a ring() before task_ was set had no effect; repeat it
}

void service_task::ring()
{
    exec::task* task = task_;
    if (task) home_.exec().wake(*task);
}

void service_task::sleep(uint64_t deadline, const char* reason) const
{
    if (!is_stopping_) home_.exec().park(deadline, reason, name_.c_str());
}

void service_task::stop()
{
    is_stopping_ = true;
    ring();
    exec::task* task = task_.exchange(nullptr);
    if (task) home_.exec().join(*task);
}

} // namespace stack
