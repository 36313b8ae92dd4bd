#include "host/kernel/fault.h"

#include <cstring>

namespace kernel
{

namespace
{

// Returns a number whose bits depend on all bits of `number` (the finalizer of SplitMix64).
uint64_t mixed(uint64_t number)
{
    number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
    number = (number ^ number >> 27) * 0x94D049BB133111EB;
    return number ^ number >> 31;
}

} // namespace

void fault_injector::fail_nth(uint64_t n, uint64_t second_distance)
{
    disarm();
    first_number_ = n;
    second_number_ = second_distance > 0 ? n + second_distance : 0;
    is_armed_ = n > 0;
}

void fault_injector::fail_some(uint32_t percent, uint64_t seed)
{
    disarm();
    percent_ = percent;
    seed_ = seed;
    is_armed_ = percent > 0;
}

void fault_injector::fail_calls(std::string function, uint64_t times)
{
    disarm();
    function_ = std::move(function);
    remaining_times_ = times;
    is_armed_ = true;
}

void fault_injector::disarm()
{
    is_armed_ = false;
    calls_ = 0;
    failures_ = 0;
    first_number_ = 0;
    second_number_ = 0;
    percent_ = 0;
    function_.clear();
    remaining_times_ = 0;
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
    bool fails =
        number == first_number_ || number == second_number_ || (percent_ > 0 && mixed(seed_ + number) % 100 < percent_);
    if (!function_.empty() && function_ == call) {
        uint64_t times = remaining_times_;
        while (times > 0 && times != UINT64_MAX && !remaining_times_.compare_exchange_weak(times, times - 1)) {}
        fails = times > 0;
    }
    if (fails) {
        ++failures_;
        failed_call_ = call;
    }
    return fails;
}

} // namespace kernel
