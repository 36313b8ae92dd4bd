// A task of a fabric, as a watchdog sees it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace fabric
{

// The calls may come from any thread, do not wait, and are valid as long as the fabric exists.
struct fabric_task {
    std::string name;
    std::function<void()> wake;       // lets the task begin another round soon, unless it hangs
    std::function<uint64_t()> rounds; // the number of rounds that it has begun
};

} // namespace fabric
