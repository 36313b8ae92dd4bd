// Computes how long the service waits before it starts its hosts, if its machine has just started.
#pragma once

#include <chrono>
#include <cstdint>

namespace cli
{

// After a power failure, all machines of a fabric start together. Without a delay, their hosts register in the same
// second, and check their records in the same second a minute later. Returns a delay from 0 to `spread_seconds`; the
// random number `random` selects it. Returns 0 if `uptime`, the time since the machine started, is ten minutes or more:
// then only the service was restarted, for example by an upgrade. Pure.
inline std::chrono::milliseconds start_delay(int spread_seconds, std::chrono::seconds uptime, uint32_t random)
{
    constexpr std::chrono::minutes start_phase{10};
    if (uptime >= start_phase) return std::chrono::milliseconds(0);
    return std::chrono::milliseconds(random % (static_cast<uint32_t>(spread_seconds) * 1000 + 1));
}

} // namespace cli
