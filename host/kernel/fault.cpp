#include "host/kernel/fault.h"

#include <cstring>

namespace kernel
{

void fault_injector::fail_nth(uint64_t n)
{
    disarm();
    failing_call_ = n;
    armed_ = n > 0;
}

void fault_injector::fail_calls(std::string call, uint64_t times)
{
    disarm();
    name_ = std::move(call);
    times_left_ = times;
    armed_ = true;
}

void fault_injector::disarm()
{
    armed_ = false;
    calls_ = 0;
    failing_call_ = 0;
    name_.clear();
    times_left_ = 0;
    failed_call_ = nullptr;
}

std::string fault_injector::failed_call() const
{
    const char* call = failed_call_;
    return call ? call : "";
}

bool fault_injector::decide(const char* call)
{
    const uint64_t number = ++calls_;
    bool fails = number == failing_call_;
    if (!name_.empty() && name_ == call) {
        uint64_t left = times_left_;
        while (left > 0 && left != UINT64_MAX && !times_left_.compare_exchange_weak(left, left - 1)) {}
        fails = left > 0;
    }
    if (fails) failed_call_ = call;
    return fails;
}

} // namespace kernel
