// Requests under way, by the half of their TransactionID that comes back: whoever carries a MAD (the kernel, ibsim)
// stamps the other half with a number of its own. The table has a fixed size, and of two requests that want the same
// place the newer one has it: the older one's answer is then as good as late.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>

namespace umad
{

// Any thread.
class transactions
{
  public:
    void begin(uint64_t transaction)
    {
        const std::lock_guard lock(mutex_);
        place_of(static_cast<uint32_t>(transaction)) = {.transaction = transaction, .is_under_way = true};
    }

    // The whole TransactionID of the request that this answers, which is over then; none if there is no such request.
    std::optional<uint64_t> end(uint64_t stamped)
    {
        const std::lock_guard lock(mutex_);
        place& found = place_of(static_cast<uint32_t>(stamped));
        if (!found.is_under_way || static_cast<uint32_t>(found.transaction) != static_cast<uint32_t>(stamped))
            return std::nullopt;
        found.is_under_way = false;
        return found.transaction;
    }

  private:
    struct place {
        uint64_t transaction = 0;
        bool is_under_way = false;
    };
    static constexpr int bits = 10;

    // Fibonacci hashing: numbers that are counted up, which is how they come, do not meet for hundreds of steps.
    place& place_of(uint32_t low_half) { return places_[(low_half * 0x9E3779B9u) >> (32 - bits)]; }

    std::mutex mutex_;
    std::array<place, 1 << bits> places_;
};

} // namespace umad
