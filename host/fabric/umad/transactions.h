// The requests in flight, by the low half of their TransactionID. The kernel and ibsim replace the high half with a
// number of their own. The table has a fixed size. If two requests need the same slot, the newer one gets it. end()
// then does not find the older one, and the answer to the older one counts as a stray.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>

namespace umad
{

// Any thread may make any call.
class transactions
{
  public:
    void begin(uint64_t transaction)
    {
        const std::lock_guard lock(mutex_);
        slot_of(static_cast<uint32_t>(transaction)) = {.transaction = transaction, .is_in_flight = true};
    }

    // Ends the request whose TransactionID has the same low half. Returns the whole TransactionID with which the
    // request was sent, or none if no such request is in flight. TransactionIDs are in host order.
    std::optional<uint64_t> end(uint64_t received_transaction)
    {
        const auto low_half = static_cast<uint32_t>(received_transaction);
        const std::lock_guard lock(mutex_);
        table_slot& slot = slot_of(low_half);
        if (!slot.is_in_flight || static_cast<uint32_t>(slot.transaction) != low_half) return std::nullopt;
        slot.is_in_flight = false;
        return slot.transaction;
    }

  private:
    struct table_slot {
        uint64_t transaction = 0;
        bool is_in_flight = false;
    };
    static constexpr int bits = 10;

    // Fibonacci hashing. TransactionIDs count up, and hundreds of consecutive numbers get different slots. GSI uses two
    // series of TransactionIDs, which differ in the highest bit of the low half (host/stack/gsi-adapter.cpp). Each
    // series has its own half of the table.
    table_slot& slot_of(uint32_t low_half)
    {
        const size_t slot = (low_half * 0x9E3779B9u) << 1 >> (32 - bits);
        return slots_[slot + (low_half >> 31 << bits)];
    }

    std::mutex mutex_;
    std::array<table_slot, 2 << bits> slots_;
};

} // namespace umad
