#include "host/stack/service-task.h"

namespace stack
{

void service_task::start(std::function<void()> body)
{
    task_ = &home_.start(name_, std::move(body));
    // Who rang before the task was known here rang in vain.
    ring();
}

void service_task::ring()
{
    if (exec::task* rung = task_) home_.exec().wake(*rung);
}

void service_task::sleep(uint64_t deadline, const char* reason) const
{
    if (!stopping_) home_.exec().park(deadline, reason, name_.c_str());
}

void service_task::stop()
{
    stopping_ = true;
    ring();
    if (exec::task* ending = task_.exchange(nullptr)) home_.exec().join(*ending);
}

} // namespace stack
