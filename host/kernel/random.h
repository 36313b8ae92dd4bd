// Gives random bytes from the system, or from a seed if a run must be repeatable. Any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <random>

namespace kernel
{

class random_source
{
  public:
    explicit random_source(uint64_t seed); // 0 means that the bytes come from the system
    void fill(void* buffer, int count);    // `count` is in bytes

  private:
    std::mutex mutex_;
    const bool uses_system_;
    std::mt19937_64 engine_; // guarded by mutex_
};

} // namespace kernel
