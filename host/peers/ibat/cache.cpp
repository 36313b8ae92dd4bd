#include "host/peers/ibat/cache.h"

#include <algorithm>
#include <cassert>

#include "kernel/time.h"

namespace ibat
{

bool cache::open(const cache_limits& limits)
{
    limits_ = limits;
    list_init(&learned_entries_);
    list_init(&negative_entries_);
    own_entry_ = nullptr;
    count_ = 0;
    const auto capacity = static_cast<size_t>(limits.capacity);
    if (entries_by_address_.open(capacity) && entries_by_gid_.open(capacity)) return true;
    entries_by_address_.close();
    return false;
}

void cache::close()
{
    release_own();
    flush();
    assert(count_ == 0);
    entries_by_address_.close();
    entries_by_gid_.close();
}

const cache_entry* cache::find(uint32_t address) const
{
    const cache_entry* entry = entries_by_address_.find(address);
    return entry && is_live(entry) ? entry : nullptr;
}

const cache_entry* cache::find(const kq_gid_t& gid) const
{
    const cache_entry* entry = entries_by_gid_.find(gid);
    return entry && is_live(entry) ? entry : nullptr;
}

bool cache::learn(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    const cache_entry* address_entry = entries_by_address_.find(address);
    const cache_entry* gid_entry = entries_by_gid_.find(gid);
    if (own_entry_ && (address_entry == own_entry_ || gid_entry == own_entry_)) return address_entry == gid_entry;
    return store(address, gid, local_port_num) != nullptr;
}

bool cache::learn_own(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    if (own_entry_ && own_entry_->address != address) {
        forget_own(gid, local_port_num);
        release_own();
    }
    cache_entry* entry = store(address, gid, local_port_num);
    if (!entry) return false;
    list_del_init(&entry->link);
    own_entry_ = entry;
    return true;
}

void cache::forget_own(const kq_gid_t& gid, uint32_t local_port_num)
{
    if (own_entry_ && own_entry_has(gid, local_port_num)) drop(own_entry_);
}

void cache::release_own()
{
    if (!own_entry_) return;
    own_entry_->answered_tick = jiffies;
    list_add_tail(&own_entry_->link, &learned_entries_);
    own_entry_ = nullptr;
}

void cache::learn_absence(uint32_t address)
{
    cache_entry* entry = entries_by_address_.find(address);
    if (entry && entry == own_entry_) return;
    if (entry && limits_.negative_ticks == 0) drop(entry);
    if (limits_.negative_ticks != 0) store(address, kq_gid_t{}, 0);
}

int32_t cache::sweep(int32_t limit)
{
    const int32_t negative_count = drop_aged(&negative_entries_, limit);
    return negative_count + drop_aged(&learned_entries_, limit - negative_count);
}

int32_t cache::flush()
{
    int32_t count = 0;
    for (cache_entry* entry = oldest(); entry; entry = oldest()) {
        drop(entry);
        ++count;
    }
    return count;
}

int32_t cache::list(ibat_cache_entry_t* entries, int32_t capacity) const
{
    int32_t count = 0;
    const auto add = [&](const cache_entry* entry) {
        if (!is_live(entry)) return;
        if (count < capacity) entries[count] = report(entry);
        ++count;
    };
    if (own_entry_) add(own_entry_);
    for (const list_head* head : {&learned_entries_, &negative_entries_}) {
        for (list_head* link = head->next; link != head; link = link->next) add(list_entry(link, cache_entry, link));
    }
    return count;
}

unsigned long cache::lifetime_of(const cache_entry* entry) const
{
    return entry->is_negative() ? limits_.negative_ticks : limits_.lifetime_ticks;
}

// The result is correct even if the tick count has wrapped around.
unsigned long cache::age_of(const cache_entry* entry) const
{
    return jiffies - entry->answered_tick;
}

bool cache::is_live(const cache_entry* entry) const
{
    return entry == own_entry_ || age_of(entry) < lifetime_of(entry);
}

// Returns true if the own mapping has this GID or this port. The port number 0 means an unknown port.
bool cache::own_entry_has(const kq_gid_t& gid, uint32_t local_port_num) const
{
    assert(own_entry_);
    return own_entry_->gid == gid || (local_port_num != 0 && own_entry_->local_port_num == local_port_num);
}

// Stores a new entry, which is a negative one if `gid` is zero. Drops the entries that contradict it. Returns null if
// allocate() finds no memory.
cache_entry* cache::store(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    cache_entry* entry = entries_by_address_.find(address);
    if (entry) unlink(entry);
    cache_entry* gid_entry = entries_by_gid_.find(gid);
    if (gid_entry) drop(gid_entry);
    if (!entry) entry = allocate();
    if (!entry) return nullptr;
    entry->address = address;
    entry->local_port_num = local_port_num;
    entry->gid = gid;
    entry->answered_tick = jiffies;
    list_add_tail(&entry->link, entry->is_negative() ? &negative_entries_ : &learned_entries_);
    entries_by_address_.insert(entry);
    if (!entry->is_negative()) entries_by_gid_.insert(entry);
    ++count_;
    return entry;
}

// Allocates an entry. If the cache is full or there is no memory, unlinks the oldest entry and returns it for reuse.
// Returns null if there is no such entry.
cache_entry* cache::allocate()
{
    if (count_ < limits_.capacity) {
        void* memory = kmalloc(sizeof(cache_entry), GFP_ATOMIC);
        if (memory) return static_cast<cache_entry*>(memory);
    }
    cache_entry* entry = oldest();
    if (entry) unlink(entry);
    return entry;
}

// Returns the entry to drop first. This is the oldest negative entry if there is one, otherwise the oldest learned
// entry. Returns null if there is neither.
cache_entry* cache::oldest() const
{
    if (!list_empty(&negative_entries_)) return list_entry(negative_entries_.next, cache_entry, link);
    if (!list_empty(&learned_entries_)) return list_entry(learned_entries_.next, cache_entry, link);
    return nullptr;
}

bool cache::forget(cache_entry* entry)
{
    if (!entry || entry == own_entry_) return false;
    const bool was_live = is_live(entry);
    drop(entry);
    return was_live;
}

void cache::unlink(cache_entry* entry)
{
    if (entry == own_entry_) own_entry_ = nullptr;
    assert(count_ > 0);
    list_del_init(&entry->link);
    entries_by_address_.remove(entry);
    if (!entry->is_negative()) entries_by_gid_.remove(entry);
    --count_;
}

void cache::drop(cache_entry* entry)
{
    unlink(entry);
    kfree(entry);
}

int32_t cache::drop_aged(list_head* entries, int32_t limit)
{
    int32_t count = 0;
    while (count < limit && !list_empty(entries)) {
        cache_entry* oldest_entry = list_entry(entries->next, cache_entry, link);
        if (is_live(oldest_entry)) break;
        drop(oldest_entry);
        ++count;
    }
    return count;
}

ibat_cache_entry_t cache::report(const cache_entry* entry) const
{
    ibat_cache_entry_t line{};
    line.ip = entry->address;
    line.local_port_num = entry->local_port_num;
    line.gid = entry->gid;
    line.is_static = entry == own_entry_;
    line.is_negative = entry->is_negative();
    line.age_ticks = age_of(entry);
    const uint64_t lifetime = lifetime_of(entry);
    if (!line.is_static) line.expires_ticks = lifetime - std::min(line.age_ticks, lifetime);
    return line;
}

} // namespace ibat
