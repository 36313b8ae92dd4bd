// A record that one context writes while another one reads it without a lock: a sequence lock. A reader always gets a
// whole record. Memory of zeros is a valid zero record. Neither call sleeps. A reader repeats while a writer is active.
// Therefore it must not interrupt a writer on its own processor.
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
    // Writers exclude each other for a few instructions. Any context.
    void store(const record_t& record)
    {
        uint64_t words[word_count] = {};
        memcpy(words, &record, sizeof record);
        uint32_t even = sequence_.load(std::memory_order_relaxed) & ~1u;
        while (!sequence_.compare_exchange_weak(even, even + 1, std::memory_order_acquire)) even &= ~1u;
        // A reader that sees one of these words also sees the odd number.
        for (size_t i = 0; i < word_count; ++i) words_[i].store(words[i], std::memory_order_release);
        sequence_.store(even + 2, std::memory_order_release);
    }

    // Any context.
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
