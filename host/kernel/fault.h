// Platform calls that fail on demand, so that one loop over n tests every error path of a scenario.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kernel
{

// Every platform call that can fail asks should_fail() first and then fails as it would by itself. Counting is
// atomic; arm and disarm from outside while nothing runs.
class fault_injector
{
  public:
    // The n-th failable call from now on (1: the next) fails, once; 0 disarms. With `then_after`, so does that call
    // after it (1: the very next).
    void fail_nth(uint64_t n, uint64_t then_after = 0);

    // Every failable call fails with this chance from now on, drawn from the seed and the number of the call.
    void fail_some(uint32_t percent, uint64_t seed);

    // Every call of that name fails from now on, `times` times (default: for ever).
    void fail_calls(std::string call, uint64_t times = UINT64_MAX);

    void disarm();

    // Asked by a failable call about itself. Cheap when nothing is armed: one relaxed load.
    bool should_fail(const char* call) { return armed_.load(std::memory_order_relaxed) && decide(call); }

    // How many failable calls were made while armed, how many of them failed, and the name of the one that failed last
    // ("" if none did).
    uint64_t calls() const { return calls_.load(std::memory_order_relaxed); }
    uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
    std::string failed_call() const;

  private:
    bool decide(const char* call);

    std::atomic<bool> armed_{false};
    std::atomic<uint64_t> calls_{0};
    std::atomic<uint64_t> failures_{0};
    uint64_t failing_call_ = 0;
    uint64_t second_failing_call_ = 0;
    uint32_t percent_ = 0;
    uint64_t seed_ = 0;
    std::string name_;
    std::atomic<uint64_t> times_left_{0};
    std::atomic<const char*> failed_call_{nullptr};
};

} // namespace kernel
