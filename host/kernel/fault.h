// Makes kernel calls fail on demand. A test repeats a scenario in a loop and makes the n-th kernel call fail in the
// n-th run. It thus reaches every error path of the scenario.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kernel
{

// Every kernel call that can fail calls should_fail() first; the comments below mean only such calls. If the result is
// true, the kernel call fails in its usual way. A plan says which kernel calls fail. Any thread may call should_fail().
// Set or clear the plan only while no kernel call runs.
class fault_injector
{
  public:
    // Each of the next three functions replaces the plan and resets the counts.

    // Makes one kernel call fail: the n-th from now on. If n is 1, the next call fails; if n is 0, no call fails. If
    // `second_distance` is not 0, the call number n + `second_distance` fails, too.
    void fail_nth(uint64_t n, uint64_t second_distance = 0);

    // Makes each kernel call fail with this probability. Only the seed and the number of the call decide if it fails,
    // so the same seed gives the same failures.
    void fail_some(uint32_t percent, uint64_t seed);

    // Makes the next `times` calls of the kernel function with this name fail.
    void fail_calls(std::string function, uint64_t times = UINT64_MAX);

    // Clears the plan and resets the counts.
    void disarm();

    // Returns true if the calling kernel function must fail. `call` is the name of this function, a text that is never
    // freed. Without a plan, costs one relaxed load.
    bool should_fail(const char* call) { return is_armed_.load(std::memory_order_relaxed) && decide(call); }

    // Since the present plan was set: the number of kernel calls, the number of failed ones, and the name of the
    // function that failed last ("" if none). Without a plan, calls are not counted.
    uint64_t calls() const { return calls_.load(std::memory_order_relaxed); }
    uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
    std::string failed_call() const;

  private:
    bool decide(const char* call);

    std::atomic<bool> is_armed_{false};
    std::atomic<uint64_t> calls_{0};
    std::atomic<uint64_t> failures_{0};
    uint64_t first_number_ = 0;  // number of the first failing call; 0 means none
    uint64_t second_number_ = 0; // number of the second failing call; 0 means none
    uint32_t percent_ = 0;
    uint64_t seed_ = 0;
    std::string function_;
    std::atomic<uint64_t> remaining_times_{0};
    std::atomic<const char*> failed_call_{nullptr};
};

} // namespace kernel
