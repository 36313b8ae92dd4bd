// What IBAT knows: at most one GID per address and one address per GID, learned from answers. Learned and negative
// entries age; the host's own mapping stays, and no answer about others moves it. The owner guards every call with its
// lock. No call here sleeps, and none takes longer the more entries there are, except list() and flush().
#pragma once

#include "host/peers/hash-index.h"
#include "host/peers/ibat-exports.h"
#include "kernel/list.h"

namespace ibat
{

struct cache_entry {
    list_head link; // among the learned or the negative ones; of the own mapping: none
    cache_entry* next_by_address;
    cache_entry* next_by_gid; // negative entries have no place there
    uint32_t address;
    uint32_t local_port_num;
    kq_gid_t gid;
    unsigned long answered_tick;

    bool is_negative() const { return gid == kq_gid_t{}; }
};

struct cache_limits {
    int32_t capacity;
    unsigned long lifetime_ticks;
    unsigned long negative_ticks; // 0: negative answers are not remembered
};

class cache
{
  public:
    // False: no memory; nothing is held then. May sleep.
    bool open(const cache_limits& limits);
    void close();

    // The live entry, or null.
    const cache_entry* find(uint32_t address) const;
    const cache_entry* find(const kq_gid_t& gid) const;

    // An answer says that `gid` owns `address`. What the cache held about either gives way. False: not kept, because
    // the own mapping says otherwise or because there is no room.
    bool learn(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);

    // The host owns `address` through `gid` on its port. The mapping that stood before goes if it was of the same port
    // or GID, for the host's address has changed; one of another port becomes a learned entry, because nobody
    // vouches for it any longer. False: no room.
    bool learn_own(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);

    // The port has no address any more.
    void forget_own(const kq_gid_t& gid, uint32_t local_port_num);

    // Nobody vouches for the own mapping any longer: it ages from now on.
    void release_own();

    // An answer says that nobody owns `address`.
    void learn_absence(uint32_t address);

    // Drops up to `limit` aged entries; returns how many it dropped.
    int32_t sweep(int32_t limit);

    // Drops everything but the own mapping.
    int32_t flush();

    // Drops one entry. False: there is none that lives, or it is the own mapping.
    bool forget(uint32_t address) { return forget(by_address_.find(address)); }
    bool forget(const kq_gid_t& gid) { return forget(by_gid_.find(gid)); }

    bool is_own(const cache_entry* entry) const { return entry == own_; }
    bool has_ageing_entries() const { return !list_empty(&learned_) || !list_empty(&negative_); }
    int32_t count() const { return count_; }
    int32_t list(ibat_cache_entry_t* entries, int32_t capacity) const;

  private:
    unsigned long lifetime_of(const cache_entry* entry) const;
    unsigned long age_of(const cache_entry* entry) const;
    bool is_live(const cache_entry* entry) const;
    bool is_of_own(const kq_gid_t& gid, uint32_t local_port_num) const;
    cache_entry* store(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num);
    cache_entry* allocate();
    cache_entry* oldest() const;
    bool forget(cache_entry* entry);
    void unlink(cache_entry* entry);
    void drop(cache_entry* entry);
    int32_t drop_aged(list_head* entries, int32_t limit);
    ibat_cache_entry_t report(const cache_entry* entry) const;

    cache_limits limits_;
    hash_index<cache_entry, uint32_t, &cache_entry::address, &cache_entry::next_by_address> by_address_;
    hash_index<cache_entry, kq_gid_t, &cache_entry::gid, &cache_entry::next_by_gid> by_gid_;
    list_head learned_;  // oldest first
    list_head negative_; // oldest first
    cache_entry* own_;   // the host's own mapping, or null
    int32_t count_;
};

} // namespace ibat
