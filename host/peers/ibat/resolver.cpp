// The resolver's frame: opening and closing, the attachment, lookups, ageing, reports.
#include "host/peers/ibat/resolver.h"
#include "host/peers/ibat/records.h"

namespace ibat
{
namespace
{

constexpr unsigned long sweep_period_ticks = 10 * HZ;
constexpr int32_t sweep_batch = 64; // entries dropped in one stretch with the lock held
constexpr size_t expected_requests = 512;

} // namespace

bool resolver::open(const resolver_limits& limits)
{
    spin_lock_init(&lock_);
    max_attempts_ = limits.attempts;
    retry_ticks_ = limits.retry_ticks;
    counters_ = {};
    send_arp_ = nullptr;
    handle_ = 0;
    detaching_ = false;
    sends_running_ = 0;
    init_waitqueue_head_named(&sends_finished_, "ibat send_arp");
    list_init(&sending_);
    list_init(&waiting_);
    last_request_id_ = 0;
    retry_armed_ = false;
    init_timing(&retry_timer_);
    retry_timer_.function = [](unsigned long self) { reinterpret_cast<resolver*>(self)->retry_due(); };
    retry_timer_.data = reinterpret_cast<unsigned long>(this);
    sweep_armed_ = false;
    init_timing(&sweep_timer_);
    sweep_timer_.function = [](unsigned long self) { reinterpret_cast<resolver*>(self)->sweep_aged(); };
    sweep_timer_.data = reinterpret_cast<unsigned long>(this);
    sweep_timer_.atomic = true;
    replies_.open(&lock_);
    if (!cache_.open(limits.cache)) return false;
    if (by_address_.open(expected_requests)) return true;
    cache_.close();
    return false;
}

void resolver::close()
{
    end_attachment();
    del_timing_sync(&retry_timer_);
    replies_.close();
    del_timing_sync(&sweep_timer_);
    cache_.close();
    by_address_.close();
}

// ---- the attachment ----

ibat_stat_t resolver::attach(send_arp_data_fn_t send_arp, void* context, void** handle)
{
    if (!send_arp || !handle) return ibat_stat_error;
    spin_guard guard(&lock_);
    if (send_arp_) return ibat_stat_error;
    send_arp_ = send_arp;
    send_context_ = context;
    ++handle_;
    *handle = reinterpret_cast<void*>(handle_);
    return ibat_stat_ok;
}

ibat_stat_t resolver::detach(void* handle)
{
    {
        spin_guard guard(&lock_);
        if (!send_arp_ || detaching_ || handle != reinterpret_cast<void*>(handle_)) return ibat_stat_error;
        detaching_ = true;
    }
    end_attachment();
    return ibat_stat_ok;
}

void resolver::end_attachment()
{
    {
        spin_guard guard(&lock_);
        detaching_ = true; // from here on no attempt begins
        for (list_head* requests : {&sending_, &waiting_}) {
            while (!list_empty(requests)) give_up(first_of(requests), ibat_stat_error);
        }
    }
    wait_until(&sends_finished_, &lock_, [&] { return sends_running_ == 0; });
    spin_guard guard(&lock_);
    cache_.release_own();
    arm_sweep();
    send_arp_ = nullptr;
    detaching_ = false;
}

// ---- lookups ----

// ibat_stat_pending: the cache does not know.
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

ibat_stat_t resolver::look_up_gid(const kq_gid_t& gid, ibat_arp_data_t* arp_data)
{
    const kq_gid_t wanted = gid; // the caller's GID may lie in the very record that is filled
    spin_guard guard(&lock_);
    ++counters_.lookups;
    const cache_entry* entry = cache_.find(wanted);
    if (!entry) {
        ++counters_.misses;
        return ibat_stat_not_found;
    }
    ++counters_.hits;
    fill_record(entry->address, wanted, entry->local_port_num, cache_.is_own(entry), arp_data);
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

// ---- ageing ----

void resolver::arm_sweep()
{
    if (sweep_armed_ || !cache_.has_ageing_entries()) return;
    sweep_armed_ = true;
    sweep_timer_.expires = jiffies + sweep_period_ticks;
    add_timing(&sweep_timer_);
}

// Lookups see no aged entry anyway; this gives their memory back.
void resolver::sweep_aged()
{
    int32_t dropped = sweep_batch;
    while (dropped == sweep_batch) {
        spin_guard guard(&lock_);
        dropped = cache_.sweep(sweep_batch);
    }
    spin_guard guard(&lock_);
    sweep_armed_ = false;
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
