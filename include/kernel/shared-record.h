// A record that tasks can read without a lock while another task writes it: a sequence lock. load() always returns a
// record that one store() has written, and never a mixture. Memory that is all zero is a valid shared_record, which
// contains a record of zeros. load() and store() do not sleep: they spin while another task is in store(). Therefore
// code that interrupts a store() on the same processor must not call them.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

template <class record_t>
class shared_record
{
    static_assert(std::is_trivially_copyable_v<record_t>);

  public:
    // Writes the record. Spins while another task is in store(). Any context.
    void store(const record_t& record)
    {
        uint64_t words[word_count] = {};
        memcpy(words, &record, sizeof record);
        uint32_t even = sequence_.load(std::memory_order_relaxed) & ~1u;
        while (!sequence_.compare_exchange_weak(even, even + 1, std::memory_order_acquire)) even &= ~1u;
        // If a load() that began earlier reads one of these words, it then also sees the odd sequence number or a later
        // one, and repeats.
        for (size_t i = 0; i < word_count; ++i) words_[i].store(words[i], std::memory_order_release);
        sequence_.store(even + 2, std::memory_order_release);
    }

    // Returns the record. Any context.
    record_t load() const
    {
        uint64_t words[word_count];
        uint32_t sequence;
        do {
            sequence = sequence_.load(std::memory_order_acquire);
            for (size_t i = 0; i < word_count; ++i) words[i] = words_[i].load(std::memory_order_acquire);
        } while ((sequence & 1) != 0 || sequence_.load(std::memory_order_relaxed) != sequence);
        record_t record;
        memcpy(&record, words, sizeof record);
        return record;
    }

  private:
    static constexpr size_t word_count = (sizeof(record_t) + sizeof(uint64_t) - 1) / sizeof(uint64_t);

    std::atomic<uint32_t> sequence_; // odd while a writer is active
    std::atomic<uint64_t> words_[word_count];
};
