// Random bytes: from a seed, so that a run can be repeated, or from the system.
#pragma once

#include <cstdint>
#include <mutex>
#include <random>

namespace kernel
{

class random_source
{
  public:
    explicit random_source(uint64_t seed); // 0: the system's
    void fill(void* buffer, int count);

  private:
    std::mutex mutex_;
    bool from_system_;
    std::mt19937_64 engine_;
};

} // namespace kernel
