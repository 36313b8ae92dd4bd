// Makes kernel calls fail on demand, so that one loop over n tests every error path of a scenario.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kernel
{

// Every kernel call that can fail asks should_fail() first, and then fails as it would by itself. Calls are counted by
// any thread; a plan of failures is made and dropped while none runs.
class fault_injector
{
  public:
    // Each of the next three replaces the plan and sets the counts to zero.

    // The n-th call from now on fails, once; 1 is the next call, 0 disarms. With `second_distance`, a second call fails
    // that many calls later.
    void fail_nth(uint64_t n, uint64_t second_distance = 0);

    // Every call fails with this chance, drawn from the seed and the number of the call.
    void fail_some(uint32_t percent, uint64_t seed);

    // The calls of that kernel function fail, `times` times.
    void fail_calls(std::string function, uint64_t times = UINT64_MAX);

    // No call fails any more; the counts are zero.
    void disarm();

    // True if the kernel function `call`, which asks, has to fail. Costs one relaxed load if there is no plan.
    bool should_fail(const char* call) { return is_armed_.load(std::memory_order_relaxed) && decide(call); }

    // Under the present plan: the number of calls, how many of them failed, and the function that failed last ("" if
    // none did).
    uint64_t calls() const { return calls_.load(std::memory_order_relaxed); }
    uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
    std::string failed_call() const;

  private:
    bool decide(const char* call);

    std::atomic<bool> is_armed_{false};
    std::atomic<uint64_t> calls_{0};
    std::atomic<uint64_t> failures_{0};
    uint64_t first_number_ = 0; // of the calls that fail; 0: none
    uint64_t second_number_ = 0;
    uint32_t percent_ = 0;
    uint64_t seed_ = 0;
    std::string function_;
    std::atomic<uint64_t> remaining_times_{0};
    std::atomic<const char*> failed_call_{nullptr};
};

} // namespace kernel
