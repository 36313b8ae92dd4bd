// A task of a fabric, for a watchdog that looks for tasks that hang. The main loop of a task makes rounds. If the
// number of rounds does not grow after wake(), the task hangs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace fabric
{

// Any thread may call these functions as long as the fabric exists. They do not block.
struct fabric_task {
    std::string name;
    std::function<void()> wake;       // makes the task begin another round soon
    std::function<uint64_t()> rounds; // the number of rounds that the task has begun
};

} // namespace fabric
