// Makes kernel calls fail on demand. One loop over n can then test every error path of a scenario.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kernel
{

// Every kernel call that can fail asks should_fail() first. If the answer is true, it fails in its usual way. Any
// thread may make the calls, which are counted. Set or clear the plan of failures only while no call runs.
class fault_injector
{
  public:
    // Each of the next three functions replaces the plan and resets the counts.

    // Makes the n-th call from now on fail, once. 1 is the next call, 0 means none. If `second_distance` is not 0, the
    // call that many calls later fails, too.
    void fail_nth(uint64_t n, uint64_t second_distance = 0);

    // Makes every call fail with this chance, drawn from the seed and the number of the call.
    void fail_some(uint32_t percent, uint64_t seed);

    // Makes the next `times` calls of that kernel function fail.
    void fail_calls(std::string function, uint64_t times = UINT64_MAX);

    // Clears the plan and resets the counts.
    void disarm();

    // Returns true if the calling kernel function `call` must fail. Costs one relaxed load if there is no plan.
    bool should_fail(const char* call) { return is_armed_.load(std::memory_order_relaxed) && decide(call); }

    // Figures since the present plan was set: the number of calls, the number of failed calls, and the function that
    // failed last ("" if none did).
    uint64_t calls() const { return calls_.load(std::memory_order_relaxed); }
    uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
    std::string failed_call() const;

  private:
    bool decide(const char* call);

    std::atomic<bool> is_armed_{false};
    std::atomic<uint64_t> calls_{0};
    std::atomic<uint64_t> failures_{0};
    uint64_t first_number_ = 0; // number of the first failing call; 0 means none
    uint64_t second_number_ = 0;
    uint32_t percent_ = 0;
    uint64_t seed_ = 0;
    std::string function_;
    std::atomic<uint64_t> remaining_times_{0};
    std::atomic<const char*> failed_call_{nullptr};
};

} // namespace kernel
