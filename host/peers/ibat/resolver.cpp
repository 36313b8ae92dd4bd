// Implements class resolver, except for its requests (see resolver-requests.cpp): open and close, the attachment,
// lookups in the cache, the expiry of entries, and reports.
#include "host/peers/ibat/resolver.h"
#include "host/peers/ibat/records.h"

namespace ibat
{
namespace
{

constexpr unsigned long sweep_period_ticks = 10 * HZ;
constexpr int32_t sweep_batch = 64; // largest number of entries that are dropped before the lock is released for others

} // namespace

bool resolver::open(const resolver_limits& limits)
{
    spin_lock_init(&lock_);
    max_attempts_ = limits.attempts;
    retry_ticks_ = limits.retry_ticks;
    counters_ = {};
    attachment_.open(&lock_, "ibat send_arp");
    requests_.prepare(
        &lock_, [](unsigned long self) { reinterpret_cast<resolver*>(self)->retry_due(); }, this);
    is_sweep_armed_ = false;
    init_timing(&sweep_timer_);
    sweep_timer_.function = [](unsigned long self) { reinterpret_cast<resolver*>(self)->sweep_aged(); };
    sweep_timer_.data = reinterpret_cast<unsigned long>(this);
    sweep_timer_.atomic = true;
    if (!cache_.open(limits.cache)) return false;
    if (requests_.open()) return true;
    cache_.close();
    return false;
}

void resolver::close()
{
    end_attachment();
    requests_.stop_timer();
    requests_.close();
    del_timing_sync(&sweep_timer_);
    cache_.close();
}

// ---- the attachment ----

ibat_stat_t resolver::attach(send_arp_data_fn_t send_arp, void* context, void** handle)
{
    return attachment_.attach(send_arp, context, handle) ? ibat_stat_ok : ibat_stat_error;
}

ibat_stat_t resolver::detach(void* handle)
{
    if (!attachment_.begin_detach(handle)) return ibat_stat_error;
    end_attachment();
    return ibat_stat_ok;
}

void resolver::end_attachment()
{
    {
        spin_guard guard(&lock_);
        attachment_.refuse_calls();
        requests_.for_each([this](address_request* request) { give_up(request, ibat_stat_error); });
    }
    attachment_.wait_for_calls();
    spin_guard guard(&lock_);
    cache_.release_own();
    arm_sweep();
    attachment_.end();
}

// ---- lookups ----

// Answers from the cache. Returns ibat_stat_pending if the cache has no entry for the address. The caller holds the
// lock.
ibat_stat_t resolver::from_cache(uint32_t address, ibat_arp_data_t* arp_data) const
{
    const cache_entry* entry = cache_.find(address);
    if (!entry) return ibat_stat_pending;
    if (entry->is_negative()) return ibat_stat_not_found;
    fill_record(address, entry->gid, entry->local_port_num, cache_.is_own(entry), arp_data);
    return ibat_stat_ok;
}

ibat_stat_t resolver::peek(uint32_t address, ibat_arp_data_t* arp_data)
{
    if (!arp_data) return ibat_stat_error;
    spin_guard guard(&lock_);
    const ibat_stat_t status = from_cache(address, arp_data);
    return status == ibat_stat_pending ? ibat_stat_error : status;
}

ibat_stat_t resolver::cached(uint32_t address, ibat_arp_data_t* arp_data)
{
    if (!arp_data) return ibat_stat_error;
    spin_guard guard(&lock_);
    const ibat_stat_t status = from_cache(address, arp_data);
    if (status == ibat_stat_pending) return ibat_stat_error;
    ++counters_.lookups;
    ++counters_.hits;
    return status;
}

ibat_stat_t resolver::look_up_gid(const kq_gid_t& gid, ibat_arp_data_t* arp_data)
{
    const kq_gid_t gid_copy = gid; // `gid` may be a field of `*arp_data`, which fill_record() changes
    spin_guard guard(&lock_);
    ++counters_.lookups;
    const cache_entry* entry = cache_.find(gid_copy);
    if (!entry) {
        ++counters_.misses;
        return ibat_stat_not_found;
    }
    ++counters_.hits;
    fill_record(entry->address, gid_copy, entry->local_port_num, cache_.is_own(entry), arp_data);
    return ibat_stat_ok;
}

ibat_stat_t resolver::resolve(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                              void* context)
{
    if (address == 0 || !arp_data || !callback) return ibat_stat_error;
    {
        spin_guard guard(&lock_);
        ++counters_.lookups;
        const ibat_stat_t status = from_cache(address, arp_data);
        ++(status == ibat_stat_pending ? counters_.misses : counters_.hits);
        if (status != ibat_stat_pending) return status;
    }
    return ask(address, arp_data, callback, context);
}

ibat_stat_t resolver::refresh(uint32_t address, ibat_get_ib_data_reply_fn_t callback, void* context)
{
    if (address == 0 || !callback) return ibat_stat_error;
    return ask(address, nullptr, callback, context);
}

// ---- expiry ----

// Arms the sweep timer if it is not armed and an entry can expire. The caller holds the lock.
void resolver::arm_sweep()
{
    assert(is_held(lock_));
    if (is_sweep_armed_ || !cache_.has_ageing_entries()) return;
    is_sweep_armed_ = true;
    sweep_timer_.expires = jiffies + sweep_period_ticks;
    add_timing(&sweep_timer_);
}

// The handler of the sweep timer. Frees the expired entries. Until then, lookups ignore them.
void resolver::sweep_aged()
{
    int32_t count = sweep_batch;
    while (count == sweep_batch) {
        spin_guard guard(&lock_);
        count = cache_.sweep(sweep_batch);
    }
    spin_guard guard(&lock_);
    is_sweep_armed_ = false;
    arm_sweep();
}

// ---- reports ----

int32_t resolver::list(ibat_cache_entry_t* entries, int32_t capacity)
{
    spin_guard guard(&lock_);
    return cache_.list(entries, capacity);
}

ibat_counters_t resolver::counters()
{
    spin_guard guard(&lock_);
    counters_.entries = static_cast<uint64_t>(cache_.count());
    counters_.pending = requests_.count();
    return counters_;
}

int32_t resolver::flush()
{
    spin_guard guard(&lock_);
    return cache_.flush();
}

int32_t resolver::forget(uint32_t address, const kq_gid_t* gid)
{
    spin_guard guard(&lock_);
    return gid ? cache_.forget(*gid) : cache_.forget(address);
}

} // namespace ibat
