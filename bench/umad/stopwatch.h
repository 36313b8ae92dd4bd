// Measures the speed and the processor time of lookups. The measurement begins when the object is constructed.
#pragma once

#include <chrono>
#include <cstdio>
#include <ctime>

class stopwatch
{
  public:
    // Prints the lookups per second, and the processor time per lookup. The processor time is that of all threads of
    // this process. Prints no line end.
    void print(double lookups) const
    {
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin_;
        const double processor_seconds = static_cast<double>(std::clock() - processor_begin_) / CLOCKS_PER_SEC;
        std::printf("%.0f lookups/s, %.3f us of processor time each", lookups / seconds.count(),
                    processor_seconds / lookups * 1e6);
    }

  private:
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    const std::clock_t processor_begin_ = std::clock();
};
