#include "host/kernel/fault.h"

#include <cstring>

namespace kernel
{

namespace
{

// Well mixed bits of a number (the finalizer of SplitMix64).
uint64_t mixed(uint64_t number)
{
    number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
    number = (number ^ number >> 27) * 0x94D049BB133111EB;
    return number ^ number >> 31;
}

} // namespace

void fault_injector::fail_nth(uint64_t n, uint64_t then_after)
{
    disarm();
    failing_call_ = n;
    second_failing_call_ = then_after > 0 ? n + then_after : 0;
    armed_ = n > 0;
}

void fault_injector::fail_some(uint32_t percent, uint64_t seed)
{
    disarm();
    percent_ = percent;
    seed_ = seed;
    armed_ = percent > 0;
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
    failures_ = 0;
    failing_call_ = 0;
    second_failing_call_ = 0;
    percent_ = 0;
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
    bool fails = number == failing_call_ || number == second_failing_call_ ||
                 (percent_ > 0 && mixed(seed_ + number) % 100 < percent_);
    if (!name_.empty() && name_ == call) {
        uint64_t left = times_left_;
        while (left > 0 && left != UINT64_MAX && !times_left_.compare_exchange_weak(left, left - 1)) {}
        fails = left > 0;
    }
    if (fails) {
        ++failures_;
        failed_call_ = call;
    }
    return fails;
}

} // namespace kernel
