// IBAT's cache of answers from the SA. It has at most one GID for an address, and at most one address for a GID. There
// are three kinds of entries: the host's own mapping (its address and its GID), learned mappings (from answers about
// other hosts, and earlier own mappings), and negative entries (the SA has no record of the address). Learned and
// negative entries expire. The own mapping does not expire, and answers about other hosts do not change it.
//
// The owner of the cache guards every call with a lock, except open() and close(). Only open() may sleep. Only list(),
// flush() and close() take longer if there are more entries.
#pragma once

#include "host/peers/hash-index.h"
#include "host/peers/ibat-exports.h"
#include "kernel/list.h"

namespace ibat
{

struct cache_entry {
    list_head link; // in the list of learned or of negative entries; the own mapping is in no list
    cache_entry* next_by_address;
    cache_entry* next_by_gid; // unused in a negative entry
    uint32_t address;
    uint32_t local_port_num;
    kq_gid_t gid;
    unsigned long answered_tick;

    bool is_negative() const { return gid == kq_gid_t{}; }
};

struct cache_limits {
    int32_t capacity;
    unsigned long lifetime_ticks;
    unsigned long negative_ticks; // 0 means that negative answers are not stored
};

class cache
{
  public:
    // Returns false if there is no memory; nothing stays allocated then.
    bool open(const cache_limits& limits);

    // Drops every entry and frees the memory.
    void close();

    // Returns the entry of an address or GID, or null if there is no entry or it has expired.
    const cache_entry* find(uint32_t address) const;
    const cache_entry* find(const kq_gid_t& gid) const;

    // Stores an answer: `gid` owns `address`. The new entry replaces earlier entries of this address and of this GID.
    // Returns false, and stores nothing, if the answer contradicts the own mapping or there is no memory. An answer
    // that agrees with the own mapping changes nothing.
    bool learn(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);

    // Stores the own mapping: the host itself has `address`, and its port has `gid`. If there is an earlier own mapping
    // with another address, it is replaced. The earlier mapping is dropped if it has the same port or GID, because the
    // address of this port has changed. Otherwise it becomes a learned entry. Returns false if there is no memory; the
    // cache then has no own mapping.
    bool learn_own(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);

    // Call it when a port no longer has an address. Drops the own mapping if it has this port or this GID.
    void forget_own(const kq_gid_t& gid, uint32_t local_port_num);

    // Turns the own mapping into a learned entry, which can expire. Call it when no provider confirms the mapping any
    // more.
    void release_own();

    // Stores a negative answer: the SA has no record of `address`. Does nothing if this is the address of the own
    // mapping. If negative answers are not stored, only drops an earlier entry of the address.
    void learn_absence(uint32_t address);

    // Drops up to `limit` expired entries. Returns the number of dropped entries.
    int32_t sweep(int32_t limit);

    // Drops every entry except the own mapping. Returns the number of dropped entries.
    int32_t flush();

    // Drops the entry of an address or GID, but never the own mapping. Returns true if it has dropped an entry that had
    // not expired.
    bool forget(uint32_t address) { return forget(entries_by_address_.find(address)); }
    bool forget(const kq_gid_t& gid) { return forget(entries_by_gid_.find(gid)); }

    bool is_own(const cache_entry* entry) const { return entry == own_entry_; }
    bool has_ageing_entries() const { return !list_empty(&learned_entries_) || !list_empty(&negative_entries_); }
    int32_t count() const { return count_; }

    // Copies up to `capacity` entries that have not expired, in the order of ibat_cache_list_fn. Returns the number of
    // all entries that have not expired.
    int32_t list(ibat_cache_entry_t* entries, int32_t capacity) const;

  private:
    unsigned long lifetime_of(const cache_entry* entry) const;
    unsigned long age_of(const cache_entry* entry) const;
    bool is_live(const cache_entry* entry) const;
    bool own_entry_has(const kq_gid_t& gid, uint32_t local_port_num) const;
    cache_entry* store(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);
    cache_entry* allocate();
    cache_entry* oldest() const;
    bool forget(cache_entry* entry);
    void unlink(cache_entry* entry);
    void drop(cache_entry* entry);
    int32_t drop_aged(list_head* entries, int32_t limit);
    ibat_cache_entry_t report(const cache_entry* entry) const;

    cache_limits limits_;
    hash_index<cache_entry, uint32_t, &cache_entry::address, &cache_entry::next_by_address> entries_by_address_;
    hash_index<cache_entry, kq_gid_t, &cache_entry::gid, &cache_entry::next_by_gid> entries_by_gid_;
    list_head learned_entries_;  // oldest first
    list_head negative_entries_; // oldest first
    cache_entry* own_entry_;     // the host's own mapping, or null
    int32_t count_;
};

} // namespace ibat
