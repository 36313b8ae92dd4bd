// An index over records that somebody else owns, chained through the records themselves: after open() nothing
// allocates, sleeps or fails, so that it serves contexts that may not sleep. The caller guards it.
#pragma once

#include <bit>
#include <cstring>

#include "ib-types.h"
#include "kernel/memory.h"

inline uint64_t hash_of(uint64_t key)
{
    return key * 0x9E3779B97F4A7C15u >> 32; // Fibonacci hashing: neighbouring keys spread out
}
inline uint64_t hash_of(const kq_gid_t& gid)
{
    return hash_of(gid.eui64 ^ hash_of(gid.subnet));
}

template <class record_t, class key_t, key_t record_t::*key, record_t* record_t::*next>
class hash_index
{
  public:
    // Makes room for about `expected` records; more only make it slower. False: no memory. May sleep.
    bool open(size_t expected)
    {
        const size_t count = std::bit_ceil(expected);
        buckets_ = static_cast<record_t**>(kmalloc(count * sizeof(record_t*), GFP_KERNEL));
        if (!buckets_) return false;
        memset(buckets_, 0, count * sizeof(record_t*));
        mask_ = count - 1;
        return true;
    }

    // A second close, or one after a failed open, does nothing.
    void close()
    {
        kfree(buckets_);
        buckets_ = nullptr;
    }

    record_t* find(const key_t& wanted) const
    {
        record_t* record = buckets_[hash_of(wanted) & mask_];
        while (record && !(record->*key == wanted)) record = record->*next;
        return record;
    }

    // `record` is not in the index, nor is its key.
    void insert(record_t* record)
    {
        record_t*& head = buckets_[hash_of(record->*key) & mask_];
        record->*next = head;
        head = record;
    }

    // `record` is in the index.
    void remove(record_t* record)
    {
        record_t** link = &buckets_[hash_of(record->*key) & mask_];
        while (*link != record) link = &((*link)->*next);
        *link = record->*next;
    }

  private:
    record_t** buckets_;
    size_t mask_;
};
