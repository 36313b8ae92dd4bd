// Finds records by a key, with a hash table. The owner of the table also owns the records. It guards the calls with a
// lock, except open() and close(). The links of the table are members of the records. Therefore only open() allocates
// memory, may fail or may sleep. Contexts that may not sleep can make all other calls.
#pragma once

#include <bit>
#include <cassert>
#include <cstring>

#include "ib-types.h"
#include "kernel/memory.h"

inline uint64_t hash_of(uint64_t key)
{
    return key * 0x9E3779B97F4A7C15u >> 32; // Fibonacci hashing spreads similar keys
}
inline uint64_t hash_of(const kq_gid_t& gid)
{
    return hash_of(gid.eui64 ^ hash_of(gid.subnet));
}

template <class record_t, class key_t, key_t record_t::*key, record_t* record_t::*next>
class hash_index
{
  public:
    // Allocates a table for `record_count` records. It can hold more records, but is then slower. Returns false if
    // there is no memory. May sleep.
    bool open(size_t record_count)
    {
        const size_t count = std::bit_ceil(record_count);
        buckets_ = static_cast<record_t**>(kmalloc(count * sizeof(record_t*), GFP_KERNEL));
        if (!buckets_) return false;
        memset(buckets_, 0, count * sizeof(record_t*));
        mask_ = count - 1;
        return true;
    }

    // Frees the table. Does nothing if open() has failed or the table is already freed.
    void close()
    {
        kfree(buckets_);
        buckets_ = nullptr;
    }

    // Returns the record with that key, or null.
    record_t* find(const key_t& value) const
    {
        record_t* record = buckets_[hash_of(value) & mask_];
        while (record && !(record->*key == value)) record = record->*next;
        return record;
    }

    // Adds a record. The table must not contain another record with the same key.
    void insert(record_t* record)
    {
        assert(!find(record->*key));
        record_t*& head = buckets_[hash_of(record->*key) & mask_];
        record->*next = head;
        head = record;
    }

    // Removes a record. The table must contain it.
    void remove(record_t* record)
    {
        record_t** link = &buckets_[hash_of(record->*key) & mask_];
        while (*link != record) {
            assert(*link);
            link = &((*link)->*next);
        }
        *link = record->*next;
    }

  private:
    record_t** buckets_;
    size_t mask_;
};
