// Measures how long a lookup takes in real time.
#pragma once

#include <chrono>
#include <cstdint>

namespace world
{

using steady_clock = std::chrono::steady_clock;

inline uint64_t nanoseconds_since(steady_clock::time_point begin)
{
    return static_cast<uint64_t>(std::chrono::nanoseconds(steady_clock::now() - begin).count());
}

} // namespace world
