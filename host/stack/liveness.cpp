#include "host/stack/liveness.h"

#include <algorithm>

#include "host/stack/gsi-service.h"
#include "host/stack/service-task.h"

namespace stack
{

// A task that receives from the fabric can also run a completion context of GSI (gsi_adapter::may_complete). If a
// callback then hangs, the adapter's own task still makes progress. Therefore this function also notes the batch of
// each context.
void liveness::ask()
{
    rounds_.clear();
    home_.get<service_task_list>().tasks->visit_all([this](service_task& task) {
        rounds_[task.name()] = task.rounds();
        task.ring();
    });
    batches_.clear();
    for (const auto& [context, batch] : home_.get<gsi>().batches_in_work()) batches_[context] = batch;
}

std::vector<std::string> liveness::silent() const
{
    std::vector<std::string> names;
    home_.get<service_task_list>().tasks->visit_all([&](const service_task& task) {
        const auto earlier = rounds_.find(task.name());
        if (earlier != rounds_.end() && earlier->second == task.rounds()) names.push_back(task.name());
    });
    for (const auto& [context, batch] : home_.get<gsi>().batches_in_work()) {
        const auto earlier = batches_.find(context);
        const bool is_stuck = batch != 0 && earlier != batches_.end() && earlier->second == batch;
        if (is_stuck && std::ranges::count(names, context) == 0) names.push_back(context);
    }
    return names;
}

} // namespace stack
