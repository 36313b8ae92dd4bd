#include "host/peers/ibat/cache.h"

#include <algorithm>

#include "kernel/time.h"

namespace ibat
{

bool cache::open(const cache_limits& limits)
{
    limits_ = limits;
    list_init(&learned_);
    list_init(&negative_);
    own_ = nullptr;
    count_ = 0;
    const auto expected = static_cast<size_t>(limits.capacity);
    if (by_address_.open(expected) && by_gid_.open(expected)) return true;
    by_address_.close();
    return false;
}

void cache::close()
{
    release_own();
    flush();
    by_address_.close();
    by_gid_.close();
}

const cache_entry* cache::find(uint32_t address) const
{
    const cache_entry* entry = by_address_.find(address);
    return entry && is_live(entry) ? entry : nullptr;
}

const cache_entry* cache::find(const kq_gid_t& gid) const
{
    const cache_entry* entry = by_gid_.find(gid);
    return entry && is_live(entry) ? entry : nullptr;
}

bool cache::learn(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    const cache_entry* of_address = by_address_.find(address);
    const cache_entry* of_gid = by_gid_.find(gid);
    if (own_ && (of_address == own_ || of_gid == own_)) return of_address == of_gid;
    return store(address, gid, local_port_num) != nullptr;
}

bool cache::learn_own(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    if (own_ && own_->address != address) {
        forget_own(gid, local_port_num);
        release_own();
    }
    cache_entry* entry = store(address, gid, local_port_num);
    if (!entry) return false;
    list_del_init(&entry->link);
    own_ = entry;
    return true;
}

void cache::forget_own(const kq_gid_t& gid, uint32_t local_port_num)
{
    if (own_ && is_of_own(gid, local_port_num)) drop(own_);
}

void cache::release_own()
{
    if (!own_) return;
    own_->answered_tick = jiffies;
    list_add_tail(&own_->link, &learned_);
    own_ = nullptr;
}

void cache::learn_absence(uint32_t address)
{
    cache_entry* entry = by_address_.find(address);
    if (entry && entry == own_) return;
    if (entry && limits_.negative_ticks == 0) drop(entry);
    if (limits_.negative_ticks != 0) store(address, kq_gid_t{}, 0);
}

int32_t cache::sweep(int32_t limit)
{
    const int32_t dropped = drop_aged(&negative_, limit);
    return dropped + drop_aged(&learned_, limit - dropped);
}

int32_t cache::flush()
{
    int32_t dropped = 0;
    while (cache_entry* entry = oldest()) {
        drop(entry);
        ++dropped;
    }
    return dropped;
}

int32_t cache::list(ibat_cache_entry_t* entries, int32_t capacity) const
{
    int32_t found = 0;
    const auto add = [&](const cache_entry* entry) {
        if (!is_live(entry)) return;
        if (found < capacity) entries[found] = report(entry);
        ++found;
    };
    if (own_) add(own_);
    for (const list_head* head : {&learned_, &negative_}) {
        for (list_head* link = head->next; link != head; link = link->next) add(list_entry(link, cache_entry, link));
    }
    return found;
}

unsigned long cache::lifetime_of(const cache_entry* entry) const
{
    return entry->is_negative() ? limits_.negative_ticks : limits_.lifetime_ticks;
}

// Differences of tick counts are right whatever the counts themselves are.
unsigned long cache::age_of(const cache_entry* entry) const
{
    return jiffies - entry->answered_tick;
}

bool cache::is_live(const cache_entry* entry) const
{
    return entry == own_ || age_of(entry) < lifetime_of(entry);
}

bool cache::is_of_own(const kq_gid_t& gid, uint32_t local_port_num) const
{
    return own_->gid == gid || (local_port_num != 0 && own_->local_port_num == local_port_num);
}

// Writes an entry as learned or negative just now, in place of all that contradicts it. Null: no room.
cache_entry* cache::store(uint32_t address, const kq_gid_t& gid, uint32_t local_port_num)
{
    cache_entry* entry = by_address_.find(address);
    if (entry) unlink(entry);
    if (cache_entry* of_gid = by_gid_.find(gid)) drop(of_gid);
    if (!entry) entry = allocate();
    if (!entry) return nullptr;
    entry->address = address;
    entry->local_port_num = local_port_num;
    entry->gid = gid;
    entry->answered_tick = jiffies;
    list_add_tail(&entry->link, entry->is_negative() ? &negative_ : &learned_);
    by_address_.insert(entry);
    if (!entry->is_negative()) by_gid_.insert(entry);
    ++count_;
    return entry;
}

// Memory for one more entry, if need be that of the oldest.
cache_entry* cache::allocate()
{
    if (count_ < limits_.capacity) {
        if (void* memory = kmalloc(sizeof(cache_entry), GFP_ATOMIC)) return static_cast<cache_entry*>(memory);
    }
    cache_entry* entry = oldest();
    if (entry) unlink(entry);
    return entry;
}

// The entry that gives way first: negative ones are the cheapest to learn again.
cache_entry* cache::oldest() const
{
    if (!list_empty(&negative_)) return list_entry(negative_.next, cache_entry, link);
    if (!list_empty(&learned_)) return list_entry(learned_.next, cache_entry, link);
    return nullptr;
}

bool cache::forget(cache_entry* entry)
{
    if (!entry || entry == own_) return false;
    const bool was_live = is_live(entry);
    drop(entry);
    return was_live;
}

void cache::unlink(cache_entry* entry)
{
    if (entry == own_) own_ = nullptr;
    list_del_init(&entry->link);
    by_address_.remove(entry);
    if (!entry->is_negative()) by_gid_.remove(entry);
    --count_;
}

void cache::drop(cache_entry* entry)
{
    unlink(entry);
    kfree(entry);
}

int32_t cache::drop_aged(list_head* entries, int32_t limit)
{
    int32_t dropped = 0;
    for (list_head* link = entries->next; link != entries && dropped < limit; ++dropped) {
        cache_entry* entry = list_entry(link, cache_entry, link);
        link = link->next;
        if (is_live(entry)) break;
        drop(entry);
    }
    return dropped;
}

ibat_cache_entry_t cache::report(const cache_entry* entry) const
{
    ibat_cache_entry_t line{};
    line.ip = entry->address;
    line.local_port_num = entry->local_port_num;
    line.gid = entry->gid;
    line.is_static = entry == own_;
    line.is_negative = entry->is_negative();
    line.age_ticks = age_of(entry);
    const uint64_t lifetime = lifetime_of(entry);
    if (!line.is_static) line.expires_ticks = lifetime - std::min(line.age_ticks, lifetime);
    return line;
}

} // namespace ibat
